// An open-loop HTTP load generator for keep-alive connections: requests are
// due at fixed times (the target rate, spread evenly over the connections),
// and each request's latency is measured from the time it was due, not from
// the time it could be sent. A server that stalls therefore shows its stall in
// every request that fell due meanwhile, instead of hiding it behind a client
// that waited (wrk2's correction for coordinated omission). Each connection
// carries one request at a time, as wrk does without pipelining.
//
//   open_loop_http --port N (--rate R | --peak) [--connections 50]
//                  [--seconds 5] [--warmup 1] [--path /hello] [--samples FILE]
//                  [--timeline FILE]
//
// --peak runs closed-loop instead (each connection sends its next request as
// soon as the answer is in): the rate the server can sustain. Prints one line:
//   RESULT rate <target> achieved <req/s> p50 <µs> p99 <µs> p999 <µs> max <µs> errors <n>
// and exits non-zero when any request failed or went unanswered. --samples
// also writes every latency of the window to FILE (native doubles, µs,
// ascending), so that several runs can be pooled (bench/tail_latency.sh).
// --timeline writes "due latency" lines (µs from the start of the window, in
// due order) to FILE as text: where in the run the slow answers lie, and
// whether they come back at a period (a timer, a sweep) or at random.
//
// One thread, epoll with nanosecond time-outs; it should run on a CPU of its
// own (bench/tail_latency.sh pins it).
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  int port = 0;
  double rate = 0;  // requests per second over all connections; 0 with peak
  bool peak = false;
  int connections = 50;
  double seconds = 5;
  double warmup = 1;
  std::string path = "/hello";
  std::string samples;   // where to write the latencies; empty: nowhere
  std::string timeline;  // where to write (due, latency) pairs, in due order
};

struct Connection {
  int fd = -1;
  bool waiting = false;        // a request is out and its answer not complete
  Clock::time_point due;       // when the next request is due
  Clock::time_point sent_due;  // when the request that is out was due
  std::string input;
};

Clock::duration seconds(double s) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}

// Bytes of one complete answer at the front of `input`, or 0 while it is
// incomplete; -1 when it cannot be read. *ok: the status was 200.
long answerLength(const std::string& input, bool* ok) {
  const size_t end = input.find("\r\n\r\n");
  if (end == std::string::npos) return 0;
  *ok = input.compare(0, 12, "HTTP/1.1 200") == 0;
  size_t length = 0;
  bool found = false;
  for (size_t line = input.find("\r\n"); line < end; line = input.find("\r\n", line + 2)) {
    static const char kName[] = "content-length:";
    if (strncasecmp(input.c_str() + line + 2, kName, sizeof(kName) - 1) == 0) {
      length = std::strtoul(input.c_str() + line + 2 + sizeof(kName) - 1, nullptr, 10);
      found = true;
      break;
    }
  }
  if (!found) return -1;
  const size_t total = end + 4 + length;
  return input.size() >= total ? static_cast<long>(total) : 0;
}

double percentile(const std::vector<double>& sorted, double fraction) {
  if (sorted.empty()) return 0;
  size_t rank = static_cast<size_t>(std::ceil(fraction * sorted.size()));
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

int usage() {
  std::fprintf(stderr,
               "usage: open_loop_http --port N (--rate R | --peak) [--connections 50] "
               "[--seconds 5] [--warmup 1] [--path /hello] [--samples FILE] [--timeline FILE]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--peak") {
      options.peak = true;
      continue;
    }
    if (i + 1 >= argc) return usage();
    const char* arg = argv[++i];
    if (flag == "--port") {
      options.port = std::atoi(arg);
    } else if (flag == "--rate") {
      options.rate = std::atof(arg);
    } else if (flag == "--connections") {
      options.connections = std::atoi(arg);
    } else if (flag == "--seconds") {
      options.seconds = std::atof(arg);
    } else if (flag == "--warmup") {
      options.warmup = std::atof(arg);
    } else if (flag == "--path") {
      options.path = arg;
    } else if (flag == "--samples") {
      options.samples = arg;
    } else if (flag == "--timeline") {
      options.timeline = arg;
    } else {
      return usage();
    }
  }
  if (options.port <= 0 || options.connections < 1 || options.seconds <= 0 ||
      (!options.peak && options.rate <= 0)) {
    return usage();
  }
  const std::string request =
      "GET " + options.path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: open_loop_http\r\n\r\n";

  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  std::vector<Connection> connections(options.connections);
  for (size_t i = 0; i < connections.size(); ++i) {
    Connection& c = connections[i];
    c.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(options.port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (c.fd < 0 || connect(c.fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      std::perror("open_loop_http: connect");
      return 1;
    }
    int one = 1;
    setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = i;
    epoll_ctl(epoll, EPOLL_CTL_ADD, c.fd, &event);
  }

  const Clock::time_point start = Clock::now();
  const Clock::time_point from = start + seconds(options.warmup);
  const Clock::time_point until = from + seconds(options.seconds);
  // Each connection's requests are due every connections/rate seconds, the
  // connections staggered by 1/rate so that the whole is evenly spaced.
  const Clock::duration interval =
      options.peak ? Clock::duration::zero() : seconds(options.connections / options.rate);
  for (size_t i = 0; i < connections.size(); ++i) {
    connections[i].due =
        start + (options.peak ? Clock::duration::zero() : seconds(i / options.rate));
  }

  std::vector<double> latencies_us;
  // (due time from the start of the window, latency), both in µs, in the
  // order the answers came in: where in the run the slow answers lie.
  std::vector<std::pair<double, double>> timeline_us;
  latencies_us.reserve(
      static_cast<size_t>((options.peak ? 200000 : options.rate) * (options.seconds + 1)));
  size_t completed_in_window = 0;
  size_t errors = 0;
  size_t outstanding = 0;
  std::vector<epoll_event> events(connections.size());
  char buffer[65536];

  auto sendDue = [&](Connection& c, Clock::time_point now) {
    if (c.waiting || c.due > now || c.due >= until) return;
    if (send(c.fd, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size())) {
      ++errors;
      return;
    }
    c.waiting = true;
    c.sent_due = c.due;
    c.due += interval;
    ++outstanding;
  };

  const Clock::time_point give_up = until + std::chrono::seconds(5);
  while (true) {
    Clock::time_point now = Clock::now();
    if (now >= until && outstanding == 0) break;
    if (now >= give_up) {
      std::fprintf(stderr, "open_loop_http: %zu requests unanswered 5 s after the end\n",
                   outstanding);
      errors += outstanding;
      break;
    }
    Clock::time_point next = give_up;
    for (Connection& c : connections) {
      sendDue(c, now);
      if (!c.waiting && c.due < until) next = std::min(next, c.due);
    }
    const auto wait_ns = std::max<int64_t>(
        0, std::chrono::duration_cast<std::chrono::nanoseconds>(next - now).count());
    timespec timeout = {static_cast<time_t>(wait_ns / 1000000000),
                        static_cast<long>(wait_ns % 1000000000)};
    const int ready =
        epoll_pwait2(epoll, events.data(), static_cast<int>(events.size()), &timeout, nullptr);
    if (ready < 0 && errno != EINTR) {
      std::perror("open_loop_http: epoll_pwait2");
      return 1;
    }
    now = Clock::now();
    for (int e = 0; e < ready; ++e) {
      Connection& c = connections[events[e].data.u64];
      const ssize_t n = recv(c.fd, buffer, sizeof(buffer), 0);
      if (n <= 0) {
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        std::fprintf(stderr, "open_loop_http: a connection ended\n");
        return 1;
      }
      c.input.append(buffer, static_cast<size_t>(n));
      bool ok = false;
      const long length = answerLength(c.input, &ok);
      if (length < 0 || (length > 0 && !c.waiting)) {
        std::fprintf(stderr,
                     "open_loop_http: an answer that cannot be read or was not asked for\n");
        return 1;
      }
      if (length == 0) continue;
      c.input.erase(0, static_cast<size_t>(length));
      c.waiting = false;
      --outstanding;
      if (!ok) ++errors;
      if (c.sent_due >= from && c.sent_due < until) {
        ++completed_in_window;
        latencies_us.push_back(std::chrono::duration<double, std::micro>(now - c.sent_due).count());
        if (!options.timeline.empty()) {
          timeline_us.emplace_back(
              std::chrono::duration<double, std::micro>(c.sent_due - from).count(),
              latencies_us.back());
        }
      }
      if (options.peak) c.due = now;
      sendDue(c, now);
    }
  }
  std::sort(latencies_us.begin(), latencies_us.end());
  if (!options.samples.empty()) {
    FILE* out = std::fopen(options.samples.c_str(), "wb");
    if (out == nullptr || std::fwrite(latencies_us.data(), sizeof(double), latencies_us.size(),
                                      out) != latencies_us.size()) {
      std::perror("open_loop_http: --samples");
      return 1;
    }
    std::fclose(out);
  }
  if (!options.timeline.empty()) {
    std::sort(timeline_us.begin(), timeline_us.end());
    FILE* out = std::fopen(options.timeline.c_str(), "w");
    if (out == nullptr) {
      std::perror("open_loop_http: --timeline");
      return 1;
    }
    for (const auto& [due, latency] : timeline_us) std::fprintf(out, "%.1f %.1f\n", due, latency);
    std::fclose(out);
  }
  std::printf("RESULT rate %.0f achieved %.0f p50 %.1f p99 %.1f p999 %.1f max %.1f errors %zu\n",
              options.rate, completed_in_window / options.seconds, percentile(latencies_us, 0.5),
              percentile(latencies_us, 0.99), percentile(latencies_us, 0.999),
              latencies_us.empty() ? 0.0 : latencies_us.back(), errors);
  for (Connection& c : connections) close(c.fd);
  close(epoll);
  return errors == 0 ? 0 : 1;
}
