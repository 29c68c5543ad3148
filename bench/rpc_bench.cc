// RPC echo over loopback: our HttpServer + RPCChannel beside gRPC C++ (async
// server with one completion-queue thread, async client), the same 5-byte
// request on both, with 1 and with 64 calls in flight on one channel; and our
// channel made with RPCChannelOptions::resilient() beside the default one. At 1 in
// flight, the floor beside them (bench/floor/ping_pong.h): a blocking TCP
// ping-pong of 200-byte messages on one connection, and the same ping-pong
// with the client's hand-off to an event thread and back through a condition
// variable, which is what any RPC channel has to do.
//
// Each server runs in a child process (this executable re-run with --serve)
// pinned to one CPU; the client runs in this process pinned to another, so the
// two sides never compete for a core. The client keeps N calls in flight: every
// completion issues the next call from inside its completion, until the
// measuring window closes. Calls that complete inside the window count toward
// calls/s and their issue-to-completion times give the latency percentiles.
// The server's CPU time (user + system, from /proc/PID/stat) is read at the
// start and at the end of the window; divided by the calls inside the window it
// gives the server's CPU per call.
//
// The machine may be shared, so each scenario is measured in several short
// rounds that alternate between the two sides; calls/s is the median round and
// the percentiles come from all rounds' calls together. A burst of outside load
// then lands on both sides alike instead of on whichever ran at the time.
//
// Anything that goes wrong (a failed call, a wrong reply, a call never
// answered, a server that crashes or will not stop) is printed as a problem
// and makes the exit status non-zero.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/floor/ping_pong.h"
#include "blob.pb.h"
#include "common/socket_address.h"
#include "examples/demo_service.h"
#include "relay/http_server.h"
#include "relay/rpc.h"

// After ours: our headers and abseil's (pulled in by gRPC) both define
// GUARDED_BY and its kin, and only a redefinition inside a system header is
// silent under -Werror.
#include <grpcpp/grpcpp.h>

#include "grpc_echo.grpc.pb.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

const char kText[] = "hello";
// The large-message echo's payload (--payloads): opaque bytes, the same on
// every side. Set before any load runs, read-only afterwards.
std::string g_payload;
constexpr int kServerCpu = 0;
constexpr int kClientCpu = 1;
// How long a drained client waits for its last answers before calling it a stall.
constexpr std::chrono::seconds kStallLimit(5);

struct Options {
  double seconds = 2.0;  // per round
  double warmup = 0.5;   // per round, on a fresh channel
  int rounds = 3;
  std::vector<int> in_flight = {1, 64};
  // Non-empty: the large-message echo of these sizes instead (--payloads).
  std::vector<size_t> payloads;
};

std::vector<std::string> g_problems;

void problem(const std::string& text) {
  std::fprintf(stderr, "rpc_bench: PROBLEM: %s\n", text.c_str());
  g_problems.push_back(text);
}

// The two echoes both sides run: the demo's 5-byte text, and the large
// message's bytes. A reply is checked by its size and by its first and last
// 4 KiB, so that the client's check does not cost as much as the echo.
bool samePayload(const std::string& data) {
  const size_t edge = std::min<size_t>(4096, g_payload.size());
  return data.size() == g_payload.size() && std::memcmp(data.data(), g_payload.data(), edge) == 0 &&
         std::memcmp(data.data() + data.size() - edge, g_payload.data() + g_payload.size() - edge,
                     edge) == 0;
}

struct TextEcho {
  using OurStub = demo::EchoService_Stub;
  using OurRequest = demo::EchoRequest;
  using OurReply = demo::EchoReply;
  using GrpcService = grpc_echo::EchoService;
  using GrpcRequest = grpc_echo::EchoRequest;
  using GrpcReply = grpc_echo::EchoReply;
  template <class Request>
  static void fill(Request* request) {
    request->set_text(kText);
  }
  template <class Request, class Reply>
  static void answer(const Request& request, Reply* reply) {
    reply->set_text(request.text());
  }
  template <class Reply>
  static std::string wrong(const Reply& reply) {
    return reply.text() == kText ? "" : "reply text '" + reply.text() + "'";
  }
};

struct BlobEcho {
  using OurStub = blob::BlobService_Stub;
  using OurRequest = blob::Blob;
  using OurReply = blob::Blob;
  using GrpcService = grpc_echo::BlobService;
  using GrpcRequest = grpc_echo::Blob;
  using GrpcReply = grpc_echo::Blob;
  template <class Request>
  static void fill(Request* request) {
    request->set_data(g_payload);
  }
  template <class Request, class Reply>
  static void answer(const Request& request, Reply* reply) {
    reply->set_data(request.data());
  }
  template <class Reply>
  static std::string wrong(const Reply& reply) {
    return samePayload(reply.data()) ? ""
                                     : "a reply of " + std::to_string(reply.data().size()) +
                                           " bytes that is not the payload";
  }
};

// Our server's side of the large-message echo.
class BlobServiceImpl : public blob::BlobService {
 public:
  void Echo(google::protobuf::RpcController*, const blob::Blob* request, blob::Blob* response,
            google::protobuf::Closure* done) override {
    BlobEcho::answer(*request, response);
    done->Run();
  }
};

// Pins the calling thread, and so every thread it starts afterwards, to `cpu`.
bool pinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return sched_setaffinity(0, sizeof(set), &set) == 0;
}

// The measuring window and what fell inside it. Used by one thread at a time:
// the thread that completes calls while the load runs, then the main thread.
class Recorder {
 public:
  Recorder(const Options& options, Clock::time_point start)
      : from_(windowStart(options, start)),
        until_(windowEnd(options, start)),
        seconds_(options.seconds) {}

  static Clock::time_point windowStart(const Options& options, Clock::time_point start) {
    return start + toDuration(options.warmup);
  }
  static Clock::time_point windowEnd(const Options& options, Clock::time_point start) {
    return windowStart(options, start) + toDuration(options.seconds);
  }

  // Records one completed call; true while the next call should be issued.
  bool record(Clock::time_point issued, bool ok, const std::string& error) {
    const Clock::time_point now = Clock::now();
    if (!ok) {
      if (errors_++ == 0) first_error_ = error;
    } else if (now >= from_ && now < until_) {
      latencies_us_.push_back(std::chrono::duration<double, std::micro>(now - issued).count());
    }
    return now < until_;
  }

  Clock::time_point until() const { return until_; }
  double callsPerSecond() const { return latencies_us_.size() / seconds_; }
  std::vector<double>& latencies() { return latencies_us_; }
  uint64_t errors() const { return errors_; }
  const std::string& firstError() const { return first_error_; }

 private:
  static Clock::duration toDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  }

  const Clock::time_point from_;
  const Clock::time_point until_;
  const double seconds_;
  std::vector<double> latencies_us_;
  uint64_t errors_ = 0;
  std::string first_error_;
};

// Seconds of CPU, user and system, that process `pid` (all its threads) has
// used so far; negative when they cannot be read.
double processCpuSeconds(pid_t pid) {
  char path[64];
  std::snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
  FILE* file = std::fopen(path, "r");
  if (file == nullptr) return -1;
  char line[1024];
  const bool read = std::fgets(line, sizeof(line), file) != nullptr;
  std::fclose(file);
  // The command name in parentheses may hold blanks; the fields after it are
  // state, ppid, pgrp, session, tty, tpgid, flags, four fault counts, utime, stime.
  const char* after = read ? std::strrchr(line, ')') : nullptr;
  unsigned long long user = 0, system = 0;
  if (after == nullptr ||
      std::sscanf(after + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &user,
                  &system) != 2) {
    return -1;
  }
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Reads a server's CPU time at the start and at the end of a measuring window,
// from a thread of its own that sleeps in between, so that neither the load
// nor the client's threads do it.
class CpuSampler {
 public:
  CpuSampler(pid_t pid, Clock::time_point from, Clock::time_point until)
      : thread_([this, pid, from, until] {
          std::this_thread::sleep_until(from);
          const double at_from = processCpuSeconds(pid);
          std::this_thread::sleep_until(until);
          const double at_until = processCpuSeconds(pid);
          seconds_ = at_from < 0 || at_until < 0 ? -1 : at_until - at_from;
        }) {}
  ~CpuSampler() {
    if (thread_.joinable()) thread_.join();
  }
  CpuSampler(const CpuSampler&) = delete;
  CpuSampler& operator=(const CpuSampler&) = delete;

  // Waits for the end of the window; the server's CPU seconds inside it, or
  // negative when they could not be read.
  double seconds() {
    if (thread_.joinable()) thread_.join();
    return seconds_;
  }

 private:
  double seconds_ = -1;  // written by thread_, read after it is joined
  std::thread thread_;
};

// One round of one side: what its measuring window saw.
struct Round {
  bool valid = false;
  double calls_per_second = 0;
  std::vector<double> latencies_us;
  double server_cpu_seconds = -1;  // inside the window; negative when unknown
  double client_cpu_seconds = -1;  // this process's, inside the window
};

Round summarise(const std::string& what, Recorder& recorder) {
  if (recorder.errors() > 0) {
    problem(what + ": " + std::to_string(recorder.errors()) +
            " calls failed or returned a wrong reply; first: " + recorder.firstError());
  }
  Round round;
  round.valid = recorder.callsPerSecond() > 0;
  round.calls_per_second = recorder.callsPerSecond();
  round.latencies_us = std::move(recorder.latencies());
  if (!round.valid) problem(what + ": no call completed inside the measuring window");
  return round;
}

// One side of one scenario over all its rounds.
struct Result {
  bool valid = false;
  double calls_per_second = 0;  // the median round
  double median_us = 0;
  double p99_us = 0;
  // All rounds' server CPU over all their calls; negative when unknown.
  double server_cpu_us = -1;
  std::vector<double> per_round;  // calls/s of each valid round, in order
  // CPU µs per call of each valid round, server and client (this process);
  // negative when unknown.
  std::vector<double> server_us_per_round;
  std::vector<double> client_us_per_round;
};

// The latency below which `fraction` of the sorted samples lie.
double percentile(const std::vector<double>& sorted, double fraction) {
  size_t rank = static_cast<size_t>(std::ceil(fraction * sorted.size()));
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

Result combine(std::vector<Round>& rounds) {
  Result result;
  std::vector<double> latencies;
  double cpu_seconds = 0;
  bool cpu_known = true;
  for (Round& round : rounds) {
    if (!round.valid) continue;
    result.per_round.push_back(round.calls_per_second);
    const double calls = static_cast<double>(round.latencies_us.size());
    result.server_us_per_round.push_back(
        round.server_cpu_seconds >= 0 && calls > 0 ? round.server_cpu_seconds * 1e6 / calls : -1);
    result.client_us_per_round.push_back(
        round.client_cpu_seconds >= 0 && calls > 0 ? round.client_cpu_seconds * 1e6 / calls : -1);
    latencies.insert(latencies.end(), round.latencies_us.begin(), round.latencies_us.end());
    cpu_known = cpu_known && round.server_cpu_seconds >= 0;
    cpu_seconds += round.server_cpu_seconds;
  }
  if (result.per_round.empty()) return result;
  if (cpu_known) result.server_cpu_us = cpu_seconds * 1e6 / latencies.size();
  std::vector<double> sorted = result.per_round;
  std::sort(sorted.begin(), sorted.end());
  std::sort(latencies.begin(), latencies.end());
  result.valid = true;
  result.calls_per_second = percentile(sorted, 0.5);
  result.median_us = percentile(latencies, 0.5);
  result.p99_us = percentile(latencies, 0.99);
  return result;
}

// ---------------------------------------------------------------------------
// Servers (child processes).

// Returns when the parent closes our standard input: that is the stop signal,
// and it also comes if the parent dies.
void waitForStdinEof() {
  char buffer[64];
  while (true) {
    ssize_t n = read(STDIN_FILENO, buffer, sizeof(buffer));
    if (n == 0 || (n < 0 && errno != EINTR)) return;
  }
}

// Where scripts/make-test-certs put the TLS sides' certificates; empty: no
// TLS sides.
std::string tlsDir() {
  const char* dir = std::getenv("RPC_BENCH_TLS_DIR");
  return dir != nullptr ? dir : "";
}

// `hardened`: HttpServerOptions::hardened() with its body limit raised to
// 32 MiB, so that a 16 MiB message (and its few bytes of framing) passes.
int serveOurs(bool tls, bool hardened = false) {
  vantu::relay::HttpServerOptions options;
  if (hardened) {
    options = vantu::relay::HttpServerOptions::hardened();
    options.max_body_bytes = uint64_t{32} * 1024 * 1024;
  }
  options.tls.certificate_chain_file = tlsDir() + "/server.pem";
  options.tls.private_key_file = tlsDir() + "/server-key.pem";
  if (!tls) options.tls = {};
  auto server =
      tls || hardened
          ? vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 128, options)
          : vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), /*n=*/128);
  if (!server) {
    std::fprintf(stderr, "rpc_bench server: HttpServer::create failed\n");
    return 1;
  }
  server->registerRPCService(std::make_shared<demo::EchoServiceImpl>());
  server->registerRPCService(std::make_shared<BlobServiceImpl>());
  std::printf("PORT %u\n", static_cast<unsigned>(server->localAddress().port()));
  std::fflush(stdout);
  waitForStdinEof();
  server.reset();
  return 0;
}

// Anything the gRPC server's completion queue hands back.
class GrpcServerTag {
 public:
  virtual ~GrpcServerTag() = default;
  virtual void proceed(bool ok) = 0;
};

// One Echo call on the gRPC server: waits for a request, answers it, goes away.
// Owned by itself (deleted when finished or when the queue shuts down); used
// only by the completion-queue thread.
template <class Echo>
class GrpcServerCall : public GrpcServerTag {
 public:
  using AsyncService = typename Echo::GrpcService::AsyncService;
  GrpcServerCall(AsyncService* service, grpc::ServerCompletionQueue* cq)
      : service_(service), cq_(cq), responder_(&context_) {
    service_->RequestEcho(&context_, &request_, &responder_, cq_, cq_, this);
  }
  GrpcServerCall(const GrpcServerCall&) = delete;
  GrpcServerCall& operator=(const GrpcServerCall&) = delete;

  void proceed(bool ok) override {
    if (!ok || answered_) {
      delete this;
      return;
    }
    new GrpcServerCall(service_, cq_);  // ready for the next request at once
    Echo::answer(request_, &reply_);    // copied, as our service copies it
    answered_ = true;
    responder_.Finish(reply_, grpc::Status::OK, this);
  }

 private:
  AsyncService* const service_;
  grpc::ServerCompletionQueue* const cq_;
  grpc::ServerContext context_;
  typename Echo::GrpcRequest request_;
  typename Echo::GrpcReply reply_;
  grpc::ServerAsyncResponseWriter<typename Echo::GrpcReply> responder_;
  bool answered_ = false;
};

int serveGrpc() {
  grpc_echo::EchoService::AsyncService service;
  grpc_echo::BlobService::AsyncService blob_service;
  grpc::ServerBuilder builder;
  int port = 0;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  builder.RegisterService(&service);
  builder.RegisterService(&blob_service);
  // gRPC refuses messages above 4 MiB unless told otherwise; ours takes any.
  builder.SetMaxReceiveMessageSize(-1);
  std::unique_ptr<grpc::ServerCompletionQueue> cq = builder.AddCompletionQueue();
  std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server || port == 0) {
    std::fprintf(stderr, "rpc_bench server: gRPC server failed to start\n");
    return 1;
  }
  std::thread cq_thread([&service, &blob_service, &cq] {
    new GrpcServerCall<TextEcho>(&service, cq.get());
    new GrpcServerCall<BlobEcho>(&blob_service, cq.get());
    void* tag;
    bool ok;
    while (cq->Next(&tag, &ok)) static_cast<GrpcServerTag*>(tag)->proceed(ok);
  });
  std::printf("PORT %d\n", port);
  std::fflush(stdout);
  waitForStdinEof();
  server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(1));
  cq->Shutdown();
  cq_thread.join();
  return 0;
}

int servePingPong(bool stream) {
  bench_floor::PingPongServer server(stream);
  if (!server.start()) return 1;
  std::printf("PORT %u\n", static_cast<unsigned>(server.port()));
  std::fflush(stdout);
  waitForStdinEof();
  return 0;
}

// A server child as the parent sees it.
struct ServerProcess {
  pid_t pid = -1;
  int to_child = -1;
  uint16_t port = 0;
};

bool startServer(const std::string& kind, ServerProcess* server) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
    problem("pipe2: " + std::string(std::strerror(errno)));
    return false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  std::string cpu = std::to_string(kServerCpu);
  std::vector<char*> argv = {const_cast<char*>("rpc_bench"),  const_cast<char*>("--serve"),
                             const_cast<char*>(kind.c_str()), const_cast<char*>("--cpu"),
                             const_cast<char*>(cpu.c_str()),  nullptr};
  int spawned =
      posix_spawn(&server->pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  server->to_child = in[1];
  if (spawned != 0) {
    problem("cannot start the " + kind + " server: " + std::strerror(spawned));
    close(out[0]);
    return false;
  }

  // The child prints "PORT n" once it listens.
  std::string line;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
  while (line.find('\n') == std::string::npos) {
    int left = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
    pollfd readable = {out[0], POLLIN, 0};
    if (left <= 0 || poll(&readable, 1, left) <= 0) break;
    char buffer[64];
    ssize_t n = read(out[0], buffer, sizeof(buffer));
    if (n <= 0) break;
    line.append(buffer, n);
  }
  close(out[0]);
  unsigned port = 0;
  if (std::sscanf(line.c_str(), "PORT %u", &port) != 1 || port == 0 || port > 65535) {
    problem("the " + kind + " server did not report its port (it printed '" + line + "')");
    return false;
  }
  server->port = static_cast<uint16_t>(port);
  return true;
}

// Tells the child to stop and checks that it exits cleanly and promptly.
void stopServer(const std::string& kind, ServerProcess* server) {
  if (server->to_child >= 0) close(server->to_child);
  server->to_child = -1;
  if (server->pid <= 0) return;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  int status = 0;
  pid_t done = 0;
  while ((done = waitpid(server->pid, &status, WNOHANG)) == 0 && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (done == 0) {
    problem("the " + kind + " server did not exit within 10 s of being told to stop; killed");
    kill(server->pid, SIGKILL);
    waitpid(server->pid, &status, 0);
  } else if (WIFSIGNALED(status)) {
    problem("the " + kind + " server died of signal " + std::to_string(WTERMSIG(status)) + " (" +
            strsignal(WTERMSIG(status)) + ")");
  } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    problem("the " + kind + " server exited with status " + std::to_string(WEXITSTATUS(status)));
  }
  server->pid = -1;
}

// True while the child still runs; a crash during a load is reported here.
bool serverAlive(const std::string& kind, ServerProcess* server) {
  int status = 0;
  if (waitpid(server->pid, &status, WNOHANG) == 0) return true;
  problem("the " + kind + " server exited during the load" +
          (WIFSIGNALED(status) ? " (signal " + std::to_string(WTERMSIG(status)) + ")" : ""));
  server->pid = -1;
  return false;
}

// ---------------------------------------------------------------------------
// Our client.

// Keeps `in_flight` Echo calls going on one RPCChannel. Every call's done
// closure runs on the event thread; it records the call and issues the next one
// on the same channel. Owned by runOurs; the main thread only starts the load
// and waits for the last completion.
template <class Echo>
class OursLoad {
 public:
  OursLoad(const vantu::relay::RPCChannelPtr& channel, int in_flight, const Options& options,
           Clock::time_point start)
      : stub_(channel.get()), recorder_(options, start), outstanding_(in_flight) {
    Echo::fill(&request_);
    for (int i = 0; i < in_flight; ++i) calls_.push_back(std::make_unique<Call>(this));
  }
  OursLoad(const OursLoad&) = delete;
  OursLoad& operator=(const OursLoad&) = delete;

  // Issues the first call; when it completes, its closure brings the load up to
  // `in_flight`, so that from then on only the event thread issues calls.
  void start() { issue(calls_[0].get()); }

  // Waits for every call to finish after the window closed; false on a stall.
  bool waitUntilDrained() {
    std::unique_lock<std::mutex> lock(mutex_);
    return drained_.wait_until(lock, recorder_.until() + kStallLimit,
                               [this] { return outstanding_ == 0; });
  }
  // After a stall: completions that still arrive (the channel's destruction
  // cancels them) are ignored and issue nothing.
  void abandon() { abandoned_ = true; }
  // Read once drained.
  Recorder& recorder() { return recorder_; }
  int outstanding() {
    std::lock_guard<std::mutex> lock(mutex_);
    return outstanding_;
  }

 private:
  // One slot of the load: a controller, a reply and the closure that completes
  // them; reused for call after call.
  struct Call : google::protobuf::Closure {
    explicit Call(OursLoad* load) : load(load) {}
    void Run() override { load->complete(this); }

    OursLoad* const load;
    vantu::relay::RPC controller;
    typename Echo::OurReply reply;
    Clock::time_point issued;
  };

  void issue(Call* call) {
    call->controller.Reset();
    call->reply.Clear();
    call->issued = Clock::now();
    stub_.Echo(&call->controller, &request_, &call->reply, call);
  }

  void complete(Call* call) {
    if (abandoned_) return;
    const bool failed = call->controller.Failed();
    const std::string error = failed ? call->controller.ErrorText() : Echo::wrong(call->reply);
    const bool ok = error.empty();
    const bool more = recorder_.record(call->issued, ok, error);
    if (!topped_up_) {
      topped_up_ = true;
      for (size_t i = 1; i < calls_.size(); ++i) issue(calls_[i].get());
    }
    if (more) {
      issue(call);
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (--outstanding_ == 0) drained_.notify_all();
  }

  typename Echo::OurStub stub_;
  typename Echo::OurRequest request_;
  std::vector<std::unique_ptr<Call>> calls_;
  std::atomic<bool> abandoned_{false};
  // Event thread only, once started; then the main thread, once drained.
  Recorder recorder_;
  bool topped_up_ = false;
  // Guarded by mutex_.
  std::mutex mutex_;
  std::condition_variable drained_;
  int outstanding_;
};

// Loads `channel` (made by the caller) with `in_flight` calls.
template <class Echo = TextEcho>
Round runOursOn(const std::string& what, vantu::relay::RPCChannelPtr channel,
                const Options& options, int in_flight, Clock::time_point start) {
  if (!channel) {
    problem(what + ": RPCChannel::create failed");
    return {};
  }
  auto load = std::make_unique<OursLoad<Echo>>(channel, in_flight, options, start);
  load->start();
  if (!load->waitUntilDrained()) {
    problem(what + ": " + std::to_string(load->outstanding()) + " calls still unanswered " +
            std::to_string(kStallLimit.count()) + " s after the window closed (stall)");
    // Destroying the channel completes them with "Canceled" on the event thread,
    // later: their closures must stay valid, so the load is leaked.
    load->abandon();
    channel.reset();
    load.release();
    return {};
  }
  channel.reset();
  return summarise(what, load->recorder());
}

Round runOurs(const Options& options, const ServerProcess& server, int in_flight,
              Clock::time_point start) {
  return runOursOn("ours, " + std::to_string(in_flight) + " in flight",
                   vantu::relay::RPCChannel::create(vantu::SocketAddress("127.0.0.1", server.port)),
                   options, in_flight, start);
}

// The same load through a channel made with RPCChannelOptions::resilient():
// what its deadlines (sent with every call), its call table and its choice of
// connection cost.
Round runOursResilient(const Options& options, const ServerProcess& server, int in_flight,
                       Clock::time_point start) {
  return runOursOn("ours with resilient options, " + std::to_string(in_flight) + " in flight",
                   vantu::relay::RPCChannel::create(vantu::SocketAddress("127.0.0.1", server.port),
                                                    vantu::relay::RPCChannelOptions::resilient()),
                   options, in_flight, start);
}

// ---------------------------------------------------------------------------
// The gRPC client.

template <class Echo = TextEcho>
Round runGrpc(const Options& options, const ServerProcess& server, int in_flight,
              Clock::time_point start) {
  const std::string what = "gRPC, " + std::to_string(in_flight) + " in flight";
  grpc::ChannelArguments arguments;
  // As on the server: no 4 MiB ceiling.
  arguments.SetMaxReceiveMessageSize(-1);
  std::shared_ptr<grpc::Channel> channel = grpc::CreateCustomChannel(
      "127.0.0.1:" + std::to_string(server.port), grpc::InsecureChannelCredentials(), arguments);
  if (!channel->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(5))) {
    problem(what + ": the channel did not connect");
    return {};
  }
  auto stub = Echo::GrpcService::NewStub(channel);
  grpc::CompletionQueue cq;
  typename Echo::GrpcRequest request;
  Echo::fill(&request);

  struct Call {
    std::unique_ptr<grpc::ClientContext> context;
    std::unique_ptr<grpc::ClientAsyncResponseReader<typename Echo::GrpcReply>> reader;
    typename Echo::GrpcReply reply;
    grpc::Status status;
    Clock::time_point issued;
  };
  std::vector<Call> calls(in_flight);
  auto issue = [&](Call* call) {
    call->context = std::make_unique<grpc::ClientContext>();
    call->reply.Clear();
    call->issued = Clock::now();
    call->reader = stub->AsyncEcho(call->context.get(), request, &cq);
    call->reader->Finish(&call->reply, &call->status, call);
  };

  Recorder recorder(options, start);
  for (Call& call : calls) issue(&call);
  int outstanding = in_flight;
  bool stalled = false;
  // gRPC takes deadlines on the system clock.
  const auto stall_deadline = std::chrono::system_clock::now() +
                              std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                  recorder.until() + kStallLimit - Clock::now());
  while (outstanding > 0) {
    void* tag;
    bool ok;
    auto next = cq.AsyncNext(&tag, &ok, stall_deadline);
    if (next != grpc::CompletionQueue::GOT_EVENT) {
      stalled = true;
      break;
    }
    Call* call = static_cast<Call*>(tag);
    const std::string error = !call->status.ok() ? call->status.error_message()
                              : !ok              ? "the call did not complete"
                                                 : Echo::wrong(call->reply);
    const bool good = error.empty();
    if (recorder.record(call->issued, good, error)) {
      issue(call);
    } else {
      --outstanding;
    }
  }
  if (stalled) {
    problem(what + ": " + std::to_string(outstanding) + " calls still unanswered (stall)");
    for (Call& call : calls) call.context->TryCancel();
  }
  cq.Shutdown();
  void* tag;
  bool ok;
  while (cq.Next(&tag, &ok)) {
  }
  return stalled ? Round{} : summarise(what, recorder);
}

// The same load through a channel made with default options, in clear text
// or over TLS (TLS 1.3, ECDSA P-256): what encryption costs a call.
Round runOursOptions(const Options& options, const ServerProcess& server, int in_flight,
                     Clock::time_point start, bool tls) {
  vantu::relay::RPCChannelOptions channel_options;
  channel_options.tls.enabled = tls;
  channel_options.tls.ca_file = tlsDir() + "/ca.pem";
  return runOursOn(
      std::string("ours with options") + (tls ? " over TLS, " : ", ") + std::to_string(in_flight) +
          " in flight",
      vantu::relay::RPCChannel::create("127.0.0.1:" + std::to_string(server.port), channel_options),
      options, in_flight, start);
}

Round runOursPlain(const Options& options, const ServerProcess& server, int in_flight,
                   Clock::time_point start) {
  return runOursOptions(options, server, in_flight, start, false);
}

Round runOursTls(const Options& options, const ServerProcess& server, int in_flight,
                 Clock::time_point start) {
  return runOursOptions(options, server, in_flight, start, true);
}

// ---------------------------------------------------------------------------
// The floor: one round trip at a time, so in_flight is always 1.

template <typename Client>
Round runPingPong(const std::string& what, const Options& options, const ServerProcess& server,
                  Clock::time_point start) {
  Client client;
  if (!client.connect(server.port)) {
    problem(what + ": " + client.error());
    return {};
  }
  Recorder recorder(options, start);
  static const std::string kNoError;
  while (true) {
    const Clock::time_point issued = Clock::now();
    if (!client.roundTrip()) {
      recorder.record(issued, false, client.error());
      break;  // the connection is no good any more
    }
    if (!recorder.record(issued, true, kNoError)) break;
  }
  return summarise(what, recorder);
}

Round runBlockingPingPong(const Options& options, const ServerProcess& server, int,
                          Clock::time_point start) {
  return runPingPong<bench_floor::BlockingPingPongClient>("blocking ping-pong", options, server,
                                                          start);
}

Round runEventThreadPingPong(const Options& options, const ServerProcess& server, int,
                             Clock::time_point start) {
  return runPingPong<bench_floor::EventThreadPingPongClient>("event-thread ping-pong", options,
                                                             server, start);
}

// ---------------------------------------------------------------------------

std::string format(double value, const char* spec) {
  char text[32];
  std::snprintf(text, sizeof(text), spec, value);
  return text;
}

using Pick = double (*)(const Result&);

double calls(const Result& r) { return r.calls_per_second; }
double median(const Result& r) { return r.median_us; }
double p99(const Result& r) { return r.p99_us; }
double serverCpu(const Result& r) { return r.server_cpu_us; }

bool known(const Result& result, Pick pick) { return result.valid && pick(result) >= 0; }

std::string ratio(const Result& ours, const Result& peer, Pick pick) {
  if (!known(ours, pick) || !known(peer, pick) || pick(peer) == 0) return "-";
  return format(pick(ours) / pick(peer), "%.2f");
}

std::string value(const Result& result, Pick pick, const char* spec) {
  return known(result, pick) ? format(pick(result), spec) : "-";
}

// One way of doing round trips: a server child and the client that loads it.
struct Side {
  std::string kind;   // the server child (--serve KIND)
  std::string label;  // in the tables
  Round (*run)(const Options&, const ServerProcess&, int in_flight, Clock::time_point start);
  bool floor;  // one round trip at a time: measured at 1 in flight only
  ServerProcess server;
  bool up = false;
  std::vector<Result> results;  // one per options.in_flight
};

void printTables(const Options& options, const std::vector<Side>& sides) {
  const std::vector<Result>& ours = sides[0].results;
  const std::vector<Result>& grpc = sides[1].results;
  std::printf(
      "== RPC echo (\"%s\"), one channel, server on CPU %d, client on CPU %d; %d alternating "
      "rounds of %.1f s (+%.1f s warm-up) per side\n",
      kText, kServerCpu, kClientCpu, options.rounds, options.seconds, options.warmup);
  std::printf("%-14s %14s %14s %8s\n", "scenario", "ours calls/s", "gRPC calls/s", "ratio");
  for (size_t i = 0; i < options.in_flight.size(); ++i) {
    std::string scenario = std::to_string(options.in_flight[i]) + " in flight";
    std::printf("%-14s %14s %14s %8s\n", scenario.c_str(), value(ours[i], calls, "%.0f").c_str(),
                value(grpc[i], calls, "%.0f").c_str(), ratio(ours[i], grpc[i], calls).c_str());
  }
  std::printf("\n%-14s %12s %12s %8s %12s %12s %8s\n", "latency (µs)", "ours p50", "gRPC p50",
              "ratio", "ours p99", "gRPC p99", "ratio");
  for (size_t i = 0; i < options.in_flight.size(); ++i) {
    std::string scenario = std::to_string(options.in_flight[i]) + " in flight";
    std::printf("%-14s %12s %12s %8s %12s %12s %8s\n", scenario.c_str(),
                value(ours[i], median, "%.1f").c_str(), value(grpc[i], median, "%.1f").c_str(),
                ratio(ours[i], grpc[i], median).c_str(), value(ours[i], p99, "%.1f").c_str(),
                value(grpc[i], p99, "%.1f").c_str(), ratio(ours[i], grpc[i], p99).c_str());
  }
  // printf pads by bytes, and "µ" takes two: one more in the widths of its headers.
  std::printf("\n%-14s %13s %13s %8s\n", "server CPU", "ours µs/call", "gRPC µs/call", "ratio");
  for (size_t i = 0; i < options.in_flight.size(); ++i) {
    std::string scenario = std::to_string(options.in_flight[i]) + " in flight";
    std::printf(
        "%-14s %12s %12s %8s\n", scenario.c_str(), value(ours[i], serverCpu, "%.1f").c_str(),
        value(grpc[i], serverCpu, "%.1f").c_str(), ratio(ours[i], grpc[i], serverCpu).c_str());
  }

  // What the options cost, measured in the same alternating rounds.
  const std::vector<Result>& resilient = sides[2].results;
  std::printf("\n%-14s %14s %14s %8s %10s %10s\n", "options' cost", "default calls/s",
              "options calls/s", "ratio", "p50 ratio", "p99 ratio");
  for (size_t i = 0; i < options.in_flight.size(); ++i) {
    std::string scenario = std::to_string(options.in_flight[i]) + " in flight";
    std::printf(
        "%-14s %14s %14s %8s %10s %10s\n", scenario.c_str(), value(ours[i], calls, "%.0f").c_str(),
        value(resilient[i], calls, "%.0f").c_str(), ratio(resilient[i], ours[i], calls).c_str(),
        ratio(resilient[i], ours[i], median).c_str(), ratio(resilient[i], ours[i], p99).c_str());
  }

  // What TLS costs, measured in the same alternating rounds.
  if (sides.size() > 4 && sides[4].kind == "ours-tls") {
    const std::vector<Result>& plain = sides[3].results;
    const std::vector<Result>& tls = sides[4].results;
    std::printf("\n%-14s %14s %14s %8s %10s %10s %13s %13s\n", "TLS's cost", "clear calls/s",
                "TLS calls/s", "ratio", "p50 ratio", "p99 ratio", "clear µs/call", "TLS µs/call");
    for (size_t i = 0; i < options.in_flight.size(); ++i) {
      std::string scenario = std::to_string(options.in_flight[i]) + " in flight";
      std::printf("%-14s %14s %14s %8s %10s %10s %12s %12s\n", scenario.c_str(),
                  value(plain[i], calls, "%.0f").c_str(), value(tls[i], calls, "%.0f").c_str(),
                  ratio(tls[i], plain[i], calls).c_str(), ratio(tls[i], plain[i], median).c_str(),
                  ratio(tls[i], plain[i], p99).c_str(), value(plain[i], serverCpu, "%.1f").c_str(),
                  value(tls[i], serverCpu, "%.1f").c_str());
    }
  }

  // The floor, beside every side at 1 in flight.
  const auto one = std::find(options.in_flight.begin(), options.in_flight.end(), 1);
  if (one != options.in_flight.end()) {
    const size_t i = one - options.in_flight.begin();
    std::printf(
        "\n== 1 in flight beside the floor: %zu-byte messages bounced on one loopback connection "
        "(the same pinning and rounds);\n   server: server CPU µs per round trip; ours/: ours "
        "divided by the row's figure\n",
        bench_floor::kMessageSize);
    std::printf("%-36s %10s %9s %9s %8s %10s %10s %12s\n", "1 in flight", "trips/s", "p50 µs",
                "p99 µs", "server", "ours/rate", "ours/p50", "ours/server");
    for (const Side& side : sides) {
      const Result& result = side.results[i];
      std::printf("%-36s %10s %8s %8s %8s %10s %10s %12s\n", side.label.c_str(),
                  value(result, calls, "%.0f").c_str(), value(result, median, "%.1f").c_str(),
                  value(result, p99, "%.1f").c_str(), value(result, serverCpu, "%.1f").c_str(),
                  ratio(ours[i], result, calls).c_str(), ratio(ours[i], result, median).c_str(),
                  ratio(ours[i], result, serverCpu).c_str());
    }
  }

  // The rounds behind the medians, so that a noisy run shows as one: each
  // round's calls/s, and its CPU µs per call on the server and in this (the
  // client's) process, so that a low round shows which side moved.
  std::printf("\ncalls/s per round (server µs/call, client µs/call)\n");
  for (size_t i = 0; i < options.in_flight.size(); ++i) {
    for (const Side& side : sides) {
      const Result& result = side.results[i];
      if (result.per_round.empty()) continue;
      std::string line = std::to_string(options.in_flight[i]) + " in flight, " + side.label + ":";
      for (size_t r = 0; r < result.per_round.size(); ++r) {
        const double server_us = result.server_us_per_round[r];
        const double client_us = result.client_us_per_round[r];
        line += " " + format(result.per_round[r], "%.0f") + " (" +
                (server_us < 0 ? "-" : format(server_us, "%.1f")) + ", " +
                (client_us < 0 ? "-" : format(client_us, "%.1f")) + ")";
      }
      std::printf("  %s\n", line.c_str());
    }
    // Ours over gRPC round by round: the two sides of a round run back to
    // back, so a burst of outside load weighs on both.
    const Result& ours = sides[0].results[i];
    const Result& grpc = sides[1].results[i];
    if (ours.per_round.size() == grpc.per_round.size() && !ours.per_round.empty()) {
      std::string line = std::to_string(options.in_flight[i]) + " in flight, ours / gRPC:";
      for (size_t r = 0; r < ours.per_round.size(); ++r) {
        line += " " + format(ours.per_round[r] / grpc.per_round[r], "%.2f");
      }
      std::printf("  %s\n", line.c_str());
    }
  }
}

// ---------------------------------------------------------------------------
// The large-message echo (--payloads): our server, our server made with
// hardened() (its body limit raised), gRPC and the floor, each a fresh child
// per size and depth, so that its peak memory is that scenario's.

// A field of /proc/PID/status in kB ("VmRSS", "VmHWM"); negative when unknown.
double statusKb(pid_t pid, const char* field) {
  char path[64];
  std::snprintf(path, sizeof(path), "/proc/%d/status", static_cast<int>(pid));
  FILE* file = std::fopen(path, "r");
  if (file == nullptr) return -1;
  char line[256];
  double kb = -1;
  const size_t length = std::strlen(field);
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    if (std::strncmp(line, field, length) == 0 && line[length] == ':') {
      kb = std::atof(line + length + 1);
      break;
    }
  }
  std::fclose(file);
  return kb;
}

Round runOursBlob(const Options& options, const ServerProcess& server, int in_flight,
                  Clock::time_point start) {
  return runOursOn<BlobEcho>(
      "ours, " + std::to_string(g_payload.size()) + " bytes, " + std::to_string(in_flight) +
          " in flight",
      vantu::relay::RPCChannel::create(vantu::SocketAddress("127.0.0.1", server.port)), options,
      in_flight, start);
}

Round runStreamFloor(const Options& options, const ServerProcess& server, int in_flight,
                     Clock::time_point start) {
  const std::string what = "floor, " + std::to_string(in_flight) + " in flight";
  bench_floor::StreamEchoClient client;
  if (!client.connect(server.port)) {
    problem(what + ": " + client.error());
    return {};
  }
  Recorder recorder(options, start);
  static const std::string kNoError;
  if (!client.run(g_payload.size(), in_flight, kStallLimit, [&recorder](Clock::time_point issued) {
        return recorder.record(issued, true, kNoError);
      })) {
    problem(what + ": " + client.error());
    return {};
  }
  return summarise(what, recorder);
}

struct LargeSide {
  std::string kind;
  std::string label;
  Round (*run)(const Options&, const ServerProcess&, int in_flight, Clock::time_point start);
  size_t smallest_payload;  // measured from this size up
};

int runLarge(const Options& options) {
  const std::vector<LargeSide> sides = {
      {"ours", "ours", runOursBlob, 0},
      {"ours-hardened", "ours, hardened()", runOursBlob, size_t{8} << 20},
      {"grpc", "gRPC", runGrpc<BlobEcho>, 0},
      {"stream-echo", "floor", runStreamFloor, 0},
  };
  std::printf(
      "== Large-message echo (bytes field), one connection, server on CPU %d, client on CPU %d; "
      "%d alternating rounds of %.1f s (+%.1f s warm-up) per side\n"
      "   MB/s: payload bytes echoed per second (1 MB = 10^6 bytes); CPU: server ms per MB;\n"
      "   memory: the server's peak RSS above its idle RSS, per byte in flight "
      "(payload x in flight);\n"
      "   ours/: ours divided by the row's MB/s. hardened(): max_body_bytes raised to 32 MiB.\n",
      kServerCpu, kClientCpu, options.rounds, options.seconds, options.warmup);
  std::printf("%-10s %6s  %-18s %9s %8s %8s %8s %9s %9s\n", "payload", "flight", "side", "MB/s",
              "CPU/MB", "memory", "ours/", "p50 ms", "p99 ms");
  for (size_t payload : options.payloads) {
    g_payload.resize(payload);
    uint32_t state = 2463534242u;  // xorshift, fixed: the same bytes every run
    for (char& c : g_payload) {
      state ^= state << 13;
      state ^= state >> 17;
      state ^= state << 5;
      c = static_cast<char>(state);
    }
    for (int in_flight : options.in_flight) {
      std::vector<const LargeSide*> taking_part;
      for (const LargeSide& side : sides) {
        if (payload >= side.smallest_payload) taking_part.push_back(&side);
      }
      std::vector<ServerProcess> servers(taking_part.size());
      std::vector<bool> up(taking_part.size());
      std::vector<double> idle_kb(taking_part.size(), -1);
      for (size_t k = 0; k < taking_part.size(); ++k) {
        up[k] = startServer(taking_part[k]->kind, &servers[k]);
        if (up[k]) idle_kb[k] = statusKb(servers[k].pid, "VmRSS");
      }
      std::vector<std::vector<Round>> rounds(taking_part.size());
      for (int round = 0; round < options.rounds; ++round) {
        for (size_t j = 0; j < taking_part.size(); ++j) {
          const size_t k = (round + j) % taking_part.size();
          if (!up[k]) continue;
          const Clock::time_point start = Clock::now();
          CpuSampler cpu(servers[k].pid, Recorder::windowStart(options, start),
                         Recorder::windowEnd(options, start));
          Round measured = taking_part[k]->run(options, servers[k], in_flight, start);
          measured.server_cpu_seconds = cpu.seconds();
          rounds[k].push_back(std::move(measured));
          up[k] = serverAlive(taking_part[k]->kind, &servers[k]);
        }
      }
      std::vector<Result> results(taking_part.size());
      std::vector<double> peak_kb(taking_part.size(), -1);
      for (size_t k = 0; k < taking_part.size(); ++k) {
        results[k] = combine(rounds[k]);
        if (up[k]) peak_kb[k] = statusKb(servers[k].pid, "VmHWM");
        stopServer(taking_part[k]->kind, &servers[k]);
      }
      const double in_flight_bytes = static_cast<double>(payload) * in_flight;
      for (size_t k = 0; k < taking_part.size(); ++k) {
        const Result& r = results[k];
        const double mb_per_s = r.calls_per_second * payload / 1e6;
        // server_cpu_us is per call; a call moves `payload` bytes each way.
        const double cpu_ms_per_mb =
            r.server_cpu_us < 0 ? -1 : r.server_cpu_us / 1e3 / (payload / 1e6);
        const double memory = peak_kb[k] < 0 || idle_kb[k] < 0
                                  ? -1
                                  : (peak_kb[k] - idle_kb[k]) * 1024 / in_flight_bytes;
        const std::string ours_ratio =
            r.valid && results[0].valid && r.calls_per_second > 0
                ? format(results[0].calls_per_second / r.calls_per_second, "%.2f")
                : "-";
        std::printf("%-10zu %6d  %-18s %9s %8s %8s %8s %9s %9s\n", payload, in_flight,
                    taking_part[k]->label.c_str(), r.valid ? format(mb_per_s, "%.0f").c_str() : "-",
                    cpu_ms_per_mb < 0 ? "-" : format(cpu_ms_per_mb, "%.2f").c_str(),
                    memory < 0 ? "-" : format(memory, "%.2f").c_str(), ours_ratio.c_str(),
                    r.valid ? format(r.median_us / 1e3, "%.2f").c_str() : "-",
                    r.valid ? format(r.p99_us / 1e3, "%.2f").c_str() : "-");
      }
      std::fflush(stdout);
    }
  }
  if (!g_problems.empty()) {
    std::fprintf(stderr, "rpc_bench: %zu problem(s), see above\n", g_problems.size());
    return 1;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Open loop (--open-loop): calls due at a fixed rate, each call's latency
// measured from the time it was due, whether or not it could be issued then
// (wrk2's method: a stall shows in every call that fell due during it), with
// at most kOpenLoopInFlight calls out at once, as the closed-loop load that
// measures the peak has.

constexpr int kOpenLoopInFlight = 64;

// The schedule and what it measured. run() on the pacing thread; complete()
// on whichever thread completes calls; results once run() has returned.
class OpenLoop {
 public:
  OpenLoop(double rate, const Options& options, Clock::time_point start)
      : rate_(rate),
        start_(start),
        from_(Recorder::windowStart(options, start)),
        until_(Recorder::windowEnd(options, start)) {
    for (int i = 0; i < kOpenLoopInFlight; ++i) free_.push_back(i);
    due_.resize(kOpenLoopInFlight);
  }
  OpenLoop(const OpenLoop&) = delete;
  OpenLoop& operator=(const OpenLoop&) = delete;

  // Issues every call as it falls due, once one of the slots is free; false
  // on a stall (a slot not freed for kStallLimit, or calls still out then
  // after the end).
  bool run(const std::function<void(int slot)>& issue) {
    // Wake-ups on time, not up to the default 50 µs late.
    prctl(PR_SET_TIMERSLACK, 1);
    for (uint64_t k = 0;; ++k) {
      const Clock::time_point due = start_ + std::chrono::duration_cast<Clock::duration>(
                                                 std::chrono::duration<double>(k / rate_));
      if (due >= until_) break;
      std::this_thread::sleep_until(due);
      int slot;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!freed_.wait_until(lock, Clock::now() + kStallLimit,
                               [this] { return !free_.empty(); })) {
          return false;
        }
        slot = free_.back();
        free_.pop_back();
        due_[slot] = due;
      }
      issue(slot);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    return freed_.wait_until(lock, Clock::now() + kStallLimit,
                             [this] { return free_.size() == kOpenLoopInFlight; });
  }

  void complete(int slot, const std::string& error) {
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    if (!error.empty()) {
      if (errors_++ == 0) first_error_ = error;
    } else if (due_[slot] >= from_ && due_[slot] < until_) {
      latencies_us_.push_back(std::chrono::duration<double, std::micro>(now - due_[slot]).count());
    }
    free_.push_back(slot);
    freed_.notify_all();
  }

  // After run().
  std::vector<double>& latencies() { return latencies_us_; }
  uint64_t errors() const { return errors_; }
  const std::string& firstError() const { return first_error_; }

 private:
  const double rate_;
  const Clock::time_point start_;
  const Clock::time_point from_;
  const Clock::time_point until_;
  std::mutex mutex_;
  std::condition_variable freed_;
  // Guarded by mutex_.
  std::vector<int> free_;
  std::vector<Clock::time_point> due_;
  std::vector<double> latencies_us_;
  uint64_t errors_ = 0;
  std::string first_error_;
};

struct TailResult {
  bool valid = false;
  double achieved = 0;  // calls per second inside the window
  double p50_us = 0, p99_us = 0, p999_us = 0;
};

TailResult tailOf(const std::string& what, OpenLoop& load, bool completed, const Options& options) {
  if (!completed) problem(what + ": calls stalled");
  if (load.errors() > 0) {
    problem(what + ": " + std::to_string(load.errors()) +
            " calls failed; first: " + load.firstError());
  }
  std::vector<double>& latencies = load.latencies();
  TailResult result;
  if (!completed || latencies.empty()) return result;
  std::sort(latencies.begin(), latencies.end());
  result.valid = true;
  result.achieved = latencies.size() / options.seconds;
  result.p50_us = percentile(latencies, 0.5);
  result.p99_us = percentile(latencies, 0.99);
  result.p999_us = percentile(latencies, 0.999);
  return result;
}

TailResult openLoopOurs(const Options& options, const ServerProcess& server, double rate) {
  const std::string what = "ours, open loop at " + format(rate, "%.0f") + "/s";
  vantu::relay::RPCChannelPtr channel =
      vantu::relay::RPCChannel::create(vantu::SocketAddress("127.0.0.1", server.port));
  if (!channel) {
    problem(what + ": RPCChannel::create failed");
    return {};
  }
  demo::EchoService_Stub stub(channel.get());
  demo::EchoRequest request;
  request.set_text(kText);
  struct Call : google::protobuf::Closure {
    void Run() override {
      load->complete(slot, controller.Failed() ? controller.ErrorText() : TextEcho::wrong(reply));
    }
    OpenLoop* load = nullptr;
    int slot = 0;
    vantu::relay::RPC controller;
    demo::EchoReply reply;
  };
  OpenLoop load(rate, options, Clock::now());
  std::vector<Call> calls(kOpenLoopInFlight);
  for (int i = 0; i < kOpenLoopInFlight; ++i) {
    calls[i].load = &load;
    calls[i].slot = i;
  }
  const bool completed = load.run([&](int slot) {
    Call& call = calls[slot];
    call.controller.Reset();
    call.reply.Clear();
    stub.Echo(&call.controller, &request, &call.reply, &call);
  });
  if (!completed) {
    // The channel's destruction completes the calls still out, later, on the
    // event thread: their slots must stay valid.
    channel.reset();
    new std::vector<Call>(std::move(calls));
    return tailOf(what, load, false, options);
  }
  channel.reset();
  return tailOf(what, load, true, options);
}

TailResult openLoopGrpc(const Options& options, const ServerProcess& server, double rate) {
  const std::string what = "gRPC, open loop at " + format(rate, "%.0f") + "/s";
  std::shared_ptr<grpc::Channel> channel = grpc::CreateChannel(
      "127.0.0.1:" + std::to_string(server.port), grpc::InsecureChannelCredentials());
  if (!channel->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(5))) {
    problem(what + ": the channel did not connect");
    return {};
  }
  auto stub = grpc_echo::EchoService::NewStub(channel);
  grpc::CompletionQueue cq;
  grpc_echo::EchoRequest request;
  request.set_text(kText);
  struct Call {
    std::unique_ptr<grpc::ClientContext> context;
    std::unique_ptr<grpc::ClientAsyncResponseReader<grpc_echo::EchoReply>> reader;
    grpc_echo::EchoReply reply;
    grpc::Status status;
  };
  std::vector<Call> calls(kOpenLoopInFlight);
  OpenLoop load(rate, options, Clock::now());
  // Completions on a thread of their own, as our channel's on its event thread.
  std::thread completer([&] {
    void* tag;
    bool ok;
    while (cq.Next(&tag, &ok)) {
      const int slot = static_cast<int>(reinterpret_cast<intptr_t>(tag));
      Call& call = calls[slot];
      load.complete(slot, !call.status.ok() ? call.status.error_message()
                          : !ok             ? "the call did not complete"
                                            : TextEcho::wrong(call.reply));
    }
  });
  const bool completed = load.run([&](int slot) {
    Call& call = calls[slot];
    call.context = std::make_unique<grpc::ClientContext>();
    call.reply.Clear();
    call.reader = stub->AsyncEcho(call.context.get(), request, &cq);
    call.reader->Finish(&call.reply, &call.status,
                        reinterpret_cast<void*>(static_cast<intptr_t>(slot)));
  });
  if (!completed) {
    for (Call& call : calls) {
      if (call.context) call.context->TryCancel();
    }
  }
  cq.Shutdown();
  completer.join();
  return tailOf(what, load, completed, options);
}

// Peaks closed-loop at 64 in flight, then the open-loop latencies at half of
// each side's own peak and at one common rate, three quarters of the lower.
int runTail(const Options& options) {
  ServerProcess ours, grpc_server;
  if (!startServer("ours", &ours) || !startServer("grpc", &grpc_server)) {
    stopServer("ours", &ours);
    stopServer("grpc", &grpc_server);
    return 1;
  }
  Clock::time_point start = Clock::now();
  Round ours_peak = runOurs(options, ours, kOpenLoopInFlight, start);
  start = Clock::now();
  Round grpc_peak = runGrpc<TextEcho>(options, grpc_server, kOpenLoopInFlight, start);
  const double lower = std::min(ours_peak.calls_per_second, grpc_peak.calls_per_second);
  struct Run {
    const char* side;
    const char* label;
    double rate;
    TailResult result;
  };
  std::vector<Run> runs = {
      {"ours", "ours, half its peak", ours_peak.calls_per_second / 2, {}},
      {"grpc", "gRPC, half its peak", grpc_peak.calls_per_second / 2, {}},
      {"ours", "ours, common rate", lower * 0.75, {}},
      {"grpc", "gRPC, common rate", lower * 0.75, {}},
  };
  if (ours_peak.valid && grpc_peak.valid) {
    for (Run& run : runs) {
      const bool is_ours = std::strcmp(run.side, "ours") == 0;
      run.result = is_ours ? openLoopOurs(options, ours, run.rate)
                           : openLoopGrpc(options, grpc_server, run.rate);
      if (!serverAlive(run.side, is_ours ? &ours : &grpc_server)) break;
    }
  }
  stopServer("ours", &ours);
  stopServer("grpc", &grpc_server);
  std::printf(
      "== RPC echo (\"%s\"), open loop: calls due at a fixed rate, at most %d out at once, latency "
      "from each call's due time; server on CPU %d, client on CPU %d, %.1f s (+%.1f s warm-up) "
      "per run\n   peaks, closed loop at %d in flight: ours %.0f calls/s, gRPC %.0f calls/s\n",
      kText, kOpenLoopInFlight, kServerCpu, kClientCpu, options.seconds, options.warmup,
      kOpenLoopInFlight, ours_peak.calls_per_second, grpc_peak.calls_per_second);
  std::printf("%-22s %10s %10s %10s %10s %10s\n", "run", "rate/s", "achieved", "p50 µs", "p99 µs",
              "p99.9 µs");
  for (const Run& run : runs) {
    const TailResult& r = run.result;
    std::printf("%-22s %10.0f %10s %9s %9s %9s\n", run.label, run.rate,
                r.valid ? format(r.achieved, "%.0f").c_str() : "-",
                r.valid ? format(r.p50_us, "%.0f").c_str() : "-",
                r.valid ? format(r.p99_us, "%.0f").c_str() : "-",
                r.valid ? format(r.p999_us, "%.0f").c_str() : "-");
  }
  if (runs[2].result.valid && runs[3].result.valid) {
    std::printf("p99 at the common rate, ours / gRPC: %.2f\n",
                runs[2].result.p99_us / runs[3].result.p99_us);
  }
  if (!g_problems.empty()) {
    std::fprintf(stderr, "rpc_bench: %zu problem(s), see above\n", g_problems.size());
    return 1;
  }
  return 0;
}

// "a,b,c" as its items.
std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> items;
  for (size_t at = 0; at < text.size();) {
    size_t comma = text.find(',', at);
    if (comma == std::string::npos) comma = text.size();
    items.push_back(text.substr(at, comma - at));
    at = comma + 1;
  }
  return items;
}

int usage() {
  std::fprintf(stderr,
               "usage: rpc_bench [--seconds S] [--warmup S] [--rounds N] [--in-flight N[,N...]]\n"
               "                 [--payloads BYTES[,BYTES...]]   (the large-message echo)\n"
               "                 [--open-loop]   (tail latency at fixed rates, 64 at most out)\n"
               "       rpc_bench --serve ours|ours-tls|grpc|pingpong --cpu N   (the server "
               "child)\n"
               "RPC_BENCH_TLS_DIR: scripts/make-test-certs' directory, for the TLS sides\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  bool in_flight_given = false;
  bool open_loop = false;
  std::string serve;
  int serve_cpu = kServerCpu;
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
    if (flag == "--open-loop") {
      open_loop = true;
      continue;
    }
    if (i + 1 >= argc) return usage();
    std::string arg = argv[++i];
    if (flag == "--seconds") {
      options.seconds = std::atof(arg.c_str());
    } else if (flag == "--warmup") {
      options.warmup = std::atof(arg.c_str());
    } else if (flag == "--rounds") {
      options.rounds = std::atoi(arg.c_str());
    } else if (flag == "--in-flight") {
      options.in_flight.clear();
      for (const std::string& item : splitList(arg))
        options.in_flight.push_back(std::atoi(item.c_str()));
      in_flight_given = true;
    } else if (flag == "--payloads") {
      for (const std::string& item : splitList(arg)) {
        options.payloads.push_back(std::strtoull(item.c_str(), nullptr, 10));
      }
    } else if (flag == "--serve") {
      serve = arg;
    } else if (flag == "--cpu") {
      serve_cpu = std::atoi(arg.c_str());
    } else {
      return usage();
    }
  }
  // Large messages are measured one and a few at a time.
  if (!options.payloads.empty() && !in_flight_given) options.in_flight = {1, 8};
  if (options.seconds <= 0 || options.warmup < 0 || options.rounds < 1 ||
      options.in_flight.empty() ||
      *std::min_element(options.in_flight.begin(), options.in_flight.end()) < 1) {
    return usage();
  }

  // Pin before any thread exists: the event thread and gRPC's threads inherit it.
  const bool two_cpus = sysconf(_SC_NPROCESSORS_ONLN) >= 2;
  if (!serve.empty()) {
    if (two_cpus && !pinTo(serve_cpu)) std::perror("rpc_bench server: sched_setaffinity");
    if (serve == "ours") return serveOurs(false);
    if (serve == "ours-tls") return serveOurs(true);
    if (serve == "grpc") return serveGrpc();
    if (serve == "pingpong") return servePingPong(false);
    if (serve == "stream-echo") return servePingPong(true);
    if (serve == "ours-hardened") return serveOurs(false, true);
    return usage();
  }
  if (!two_cpus) {
    std::fprintf(stderr, "rpc_bench: fewer than 2 CPUs; client and server are not pinned\n");
  } else if (!pinTo(kClientCpu)) {
    std::perror("rpc_bench: sched_setaffinity");
  }

  if (!options.payloads.empty()) return runLarge(options);
  if (open_loop) return runTail(options);

  // ours, gRPC and ours with options first: the tables take them from there.
  std::vector<Side> sides;
  sides.push_back({"ours", "ours (RPC echo)", runOurs, false, {}, false, {}});
  sides.push_back({"grpc", "gRPC (RPC echo)", runGrpc<TextEcho>, false, {}, false, {}});
  sides.push_back({"ours", "ours, resilient options", runOursResilient, false, {}, false, {}});
  if (!tlsDir().empty()) {
    // Both through a channel made with default options, so that only TLS differs.
    sides.push_back({"ours", "ours, options, clear text", runOursPlain, false, {}, false, {}});
    sides.push_back({"ours-tls", "ours, options, TLS 1.3", runOursTls, false, {}, false, {}});
  }
  const bool at_one = std::count(options.in_flight.begin(), options.in_flight.end(), 1) > 0;
  if (at_one) {
    sides.push_back(
        {"pingpong", "floor: blocking ping-pong", runBlockingPingPong, true, {}, false, {}});
    sides.push_back({"pingpong",
                     "floor: ping-pong via event thread+cv",
                     runEventThreadPingPong,
                     true,
                     {},
                     false,
                     {}});
  }
  for (Side& side : sides) {
    side.up = startServer(side.kind, &side.server);
    side.results.resize(options.in_flight.size());
  }
  for (size_t i = 0; i < options.in_flight.size(); ++i) {
    std::vector<Side*> taking_part;
    for (Side& side : sides) {
      if (!side.floor || options.in_flight[i] == 1) taking_part.push_back(&side);
    }
    std::vector<std::vector<Round>> rounds(sides.size());
    for (int round = 0; round < options.rounds; ++round) {
      // Rotate which side goes first, so that none always follows another.
      for (size_t k = 0; k < taking_part.size(); ++k) {
        Side& side = *taking_part[(round + k) % taking_part.size()];
        if (!side.up) continue;
        const Clock::time_point start = Clock::now();
        CpuSampler cpu(side.server.pid, Recorder::windowStart(options, start),
                       Recorder::windowEnd(options, start));
        CpuSampler client_cpu(getpid(), Recorder::windowStart(options, start),
                              Recorder::windowEnd(options, start));
        Round measured = side.run(options, side.server, options.in_flight[i], start);
        measured.server_cpu_seconds = cpu.seconds();
        measured.client_cpu_seconds = client_cpu.seconds();
        rounds[&side - sides.data()].push_back(std::move(measured));
        side.up = serverAlive(side.kind, &side.server);
      }
    }
    for (size_t k = 0; k < sides.size(); ++k) sides[k].results[i] = combine(rounds[k]);
  }
  for (Side& side : sides) stopServer(side.kind, &side.server);

  printTables(options, sides);
  if (!g_problems.empty()) {
    std::fprintf(stderr, "rpc_bench: %zu problem(s), see above\n", g_problems.size());
    return 1;
  }
  return 0;
}
