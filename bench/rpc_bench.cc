// RPC echo over loopback: our HttpServer + RPCChannel beside gRPC C++ (async
// server with one completion-queue thread, async client), the same 5-byte
// request on both, with 1 and with 64 calls in flight on one channel.
//
// Each server runs in a child process (this executable re-run with --serve)
// pinned to one CPU; the client runs in this process pinned to another, so the
// two sides never compete for a core. The client keeps N calls in flight: every
// completion issues the next call from inside its completion, until the
// measuring window closes. Calls that complete inside the window count toward
// calls/s and their issue-to-completion times give the latency percentiles.
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
constexpr int kServerCpu = 0;
constexpr int kClientCpu = 1;
// How long a drained client waits for its last answers before calling it a stall.
constexpr std::chrono::seconds kStallLimit(5);

struct Options {
  double seconds = 2.0;  // per round
  double warmup = 0.5;   // per round, on a fresh channel
  int rounds = 3;
  std::vector<int> in_flight = {1, 64};
};

std::vector<std::string> g_problems;

void problem(const std::string& text) {
  std::fprintf(stderr, "rpc_bench: PROBLEM: %s\n", text.c_str());
  g_problems.push_back(text);
}

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
      : from_(start + toDuration(options.warmup)),
        until_(from_ + toDuration(options.seconds)),
        seconds_(options.seconds) {}

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

// One round of one side: what its measuring window saw.
struct Round {
  bool valid = false;
  double calls_per_second = 0;
  std::vector<double> latencies_us;
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
  std::vector<double> per_round;  // calls/s of each valid round, in order
};

// The latency below which `fraction` of the sorted samples lie.
double percentile(const std::vector<double>& sorted, double fraction) {
  size_t rank = static_cast<size_t>(std::ceil(fraction * sorted.size()));
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

Result combine(std::vector<Round>& rounds) {
  Result result;
  std::vector<double> latencies;
  for (Round& round : rounds) {
    if (!round.valid) continue;
    result.per_round.push_back(round.calls_per_second);
    latencies.insert(latencies.end(), round.latencies_us.begin(), round.latencies_us.end());
  }
  if (result.per_round.empty()) return result;
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

int serveOurs() {
  auto server = vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), /*n=*/128);
  if (!server) {
    std::fprintf(stderr, "rpc_bench server: HttpServer::create failed\n");
    return 1;
  }
  server->registerRPCService(std::make_shared<demo::EchoServiceImpl>());
  std::printf("PORT %u\n", static_cast<unsigned>(server->localAddress().port()));
  std::fflush(stdout);
  waitForStdinEof();
  server.reset();
  return 0;
}

// One Echo call on the gRPC server: waits for a request, answers it, goes away.
// Owned by itself (deleted when finished or when the queue shuts down); used
// only by the completion-queue thread.
class GrpcServerCall {
 public:
  GrpcServerCall(grpc_echo::EchoService::AsyncService* service, grpc::ServerCompletionQueue* cq)
      : service_(service), cq_(cq), responder_(&context_) {
    service_->RequestEcho(&context_, &request_, &responder_, cq_, cq_, this);
  }
  GrpcServerCall(const GrpcServerCall&) = delete;
  GrpcServerCall& operator=(const GrpcServerCall&) = delete;

  void proceed(bool ok) {
    if (!ok || answered_) {
      delete this;
      return;
    }
    new GrpcServerCall(service_, cq_);  // ready for the next request at once
    reply_.set_text(request_.text());
    answered_ = true;
    responder_.Finish(reply_, grpc::Status::OK, this);
  }

 private:
  grpc_echo::EchoService::AsyncService* const service_;
  grpc::ServerCompletionQueue* const cq_;
  grpc::ServerContext context_;
  grpc_echo::EchoRequest request_;
  grpc_echo::EchoReply reply_;
  grpc::ServerAsyncResponseWriter<grpc_echo::EchoReply> responder_;
  bool answered_ = false;
};

int serveGrpc() {
  grpc_echo::EchoService::AsyncService service;
  grpc::ServerBuilder builder;
  int port = 0;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  builder.RegisterService(&service);
  std::unique_ptr<grpc::ServerCompletionQueue> cq = builder.AddCompletionQueue();
  std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server || port == 0) {
    std::fprintf(stderr, "rpc_bench server: gRPC server failed to start\n");
    return 1;
  }
  std::thread cq_thread([&service, &cq] {
    new GrpcServerCall(&service, cq.get());
    void* tag;
    bool ok;
    while (cq->Next(&tag, &ok)) static_cast<GrpcServerCall*>(tag)->proceed(ok);
  });
  std::printf("PORT %d\n", port);
  std::fflush(stdout);
  waitForStdinEof();
  server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(1));
  cq->Shutdown();
  cq_thread.join();
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
class OursLoad {
 public:
  OursLoad(const vantu::relay::RPCChannelPtr& channel, int in_flight, const Options& options)
      : stub_(channel.get()), recorder_(options, Clock::now()), outstanding_(in_flight) {
    request_.set_text(kText);
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
    demo::EchoReply reply;
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
    const bool ok = !failed && call->reply.text() == kText;
    const std::string error =
        failed ? call->controller.ErrorText() : "reply text '" + call->reply.text() + "'";
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

  demo::EchoService_Stub stub_;
  demo::EchoRequest request_;
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

Round runOurs(const Options& options, const ServerProcess& server, int in_flight) {
  const std::string what = "ours, " + std::to_string(in_flight) + " in flight";
  vantu::relay::RPCChannelPtr channel =
      vantu::relay::RPCChannel::create(vantu::SocketAddress("127.0.0.1", server.port));
  if (!channel) {
    problem(what + ": RPCChannel::create failed");
    return {};
  }
  auto load = std::make_unique<OursLoad>(channel, in_flight, options);
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

// ---------------------------------------------------------------------------
// The gRPC client.

Round runGrpc(const Options& options, const ServerProcess& server, int in_flight) {
  const std::string what = "gRPC, " + std::to_string(in_flight) + " in flight";
  std::shared_ptr<grpc::Channel> channel = grpc::CreateChannel(
      "127.0.0.1:" + std::to_string(server.port), grpc::InsecureChannelCredentials());
  if (!channel->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(5))) {
    problem(what + ": the channel did not connect");
    return {};
  }
  std::unique_ptr<grpc_echo::EchoService::Stub> stub = grpc_echo::EchoService::NewStub(channel);
  grpc::CompletionQueue cq;
  grpc_echo::EchoRequest request;
  request.set_text(kText);

  struct Call {
    std::unique_ptr<grpc::ClientContext> context;
    std::unique_ptr<grpc::ClientAsyncResponseReader<grpc_echo::EchoReply>> reader;
    grpc_echo::EchoReply reply;
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

  Recorder recorder(options, Clock::now());
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
    const bool good = ok && call->status.ok() && call->reply.text() == kText;
    const std::string error =
        !call->status.ok() ? call->status.error_message() : "reply '" + call->reply.text() + "'";
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

// ---------------------------------------------------------------------------

std::string format(double value, const char* spec) {
  char text[32];
  std::snprintf(text, sizeof(text), spec, value);
  return text;
}

std::string ratio(const Result& ours, const Result& peer, double (*pick)(const Result&)) {
  if (!ours.valid || !peer.valid || pick(peer) == 0) return "-";
  return format(pick(ours) / pick(peer), "%.2f");
}

std::string value(const Result& result, double (*pick)(const Result&), const char* spec) {
  return result.valid ? format(pick(result), spec) : "-";
}

void printTables(const Options& options, const std::vector<Result>& ours,
                 const std::vector<Result>& grpc) {
  auto calls = [](const Result& r) { return r.calls_per_second; };
  auto median = [](const Result& r) { return r.median_us; };
  auto p99 = [](const Result& r) { return r.p99_us; };
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
  // The rounds behind the medians, so that a noisy run shows as one.
  std::printf("\ncalls/s per round\n");
  for (size_t i = 0; i < options.in_flight.size(); ++i) {
    for (const auto& [name, result] : {std::pair{"ours", &ours[i]}, std::pair{"gRPC", &grpc[i]}}) {
      std::string line = std::to_string(options.in_flight[i]) + " in flight, " + name + ":";
      for (double calls : result->per_round) line += " " + format(calls, "%.0f");
      std::printf("  %s\n", line.c_str());
    }
  }
}

int usage() {
  std::fprintf(stderr,
               "usage: rpc_bench [--seconds S] [--warmup S] [--rounds N] [--in-flight N[,N...]]\n"
               "       rpc_bench --serve ours|grpc --cpu N   (the server child)\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string serve;
  int serve_cpu = kServerCpu;
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
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
      for (size_t at = 0; at < arg.size();) {
        size_t comma = arg.find(',', at);
        if (comma == std::string::npos) comma = arg.size();
        options.in_flight.push_back(std::atoi(arg.substr(at, comma - at).c_str()));
        at = comma + 1;
      }
    } else if (flag == "--serve") {
      serve = arg;
    } else if (flag == "--cpu") {
      serve_cpu = std::atoi(arg.c_str());
    } else {
      return usage();
    }
  }
  if (options.seconds <= 0 || options.warmup < 0 || options.rounds < 1 ||
      options.in_flight.empty() ||
      *std::min_element(options.in_flight.begin(), options.in_flight.end()) < 1) {
    return usage();
  }

  // Pin before any thread exists: the event thread and gRPC's threads inherit it.
  const bool two_cpus = sysconf(_SC_NPROCESSORS_ONLN) >= 2;
  if (!serve.empty()) {
    if (two_cpus && !pinTo(serve_cpu)) std::perror("rpc_bench server: sched_setaffinity");
    if (serve == "ours") return serveOurs();
    if (serve == "grpc") return serveGrpc();
    return usage();
  }
  if (!two_cpus) {
    std::fprintf(stderr, "rpc_bench: fewer than 2 CPUs; client and server are not pinned\n");
  } else if (!pinTo(kClientCpu)) {
    std::perror("rpc_bench: sched_setaffinity");
  }

  struct Side {
    std::string kind;
    Round (*run)(const Options&, const ServerProcess&, int);
    ServerProcess server;
    bool up = false;
    std::vector<Result> results;
  };
  Side sides[] = {{"ours", runOurs, {}, false, {}}, {"grpc", runGrpc, {}, false, {}}};
  for (Side& side : sides) {
    side.up = startServer(side.kind, &side.server);
    side.results.resize(options.in_flight.size());
  }
  for (size_t i = 0; i < options.in_flight.size(); ++i) {
    std::vector<Round> rounds[2];
    for (int round = 0; round < options.rounds; ++round) {
      // Alternate which side goes first, so neither always follows the other.
      for (int k = 0; k < 2; ++k) {
        Side& side = sides[(round + k) % 2];
        if (!side.up) continue;
        rounds[&side - sides].push_back(side.run(options, side.server, options.in_flight[i]));
        side.up = serverAlive(side.kind, &side.server);
      }
    }
    for (int k = 0; k < 2; ++k) sides[k].results[i] = combine(rounds[k]);
  }
  for (Side& side : sides) stopServer(side.kind, &side.server);

  printTables(options, sides[0].results, sides[1].results);
  if (!g_problems.empty()) {
    std::fprintf(stderr, "rpc_bench: %zu problem(s), see above\n", g_problems.size());
    return 1;
  }
  return 0;
}
