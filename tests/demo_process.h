#ifndef TESTS_DEMO_PROCESS_H_
#define TESTS_DEMO_PROCESS_H_

// examples/demo_server run as a process of its own, for tests and benchmarks
// that stop, kill and restart real servers; and a reading of its /metrics.
// Used from one thread.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/loopback_client.h"
#include "tests/waiting.h"

extern char** environ;

namespace vantu {
namespace testing {

class DemoProcess {
 public:
  // Starts `binary` on 127.0.0.1:`port` (0: any) with `flags` and waits, up
  // to 30 s, until it says it serves; ok() tells whether it did.
  DemoProcess(const std::string& binary, uint16_t port,
              const std::vector<std::string>& flags = {}) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<std::string> args = {binary, "--port", std::to_string(port)};
    args.insert(args.end(), flags.begin(), flags.end());
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    const int spawned = posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (spawned != 0) {
      pid_ = -1;
      close(out[0]);
      return;
    }
    // "demo_server: serving http://127.0.0.1:PORT/ (...)"
    std::string line;
    while (line.find('\n') == std::string::npos) {
      pollfd readable = {out[0], POLLIN, 0};
      if (poll(&readable, 1, 30000) <= 0) break;
      char buffer[256];
      const ssize_t n = read(out[0], buffer, sizeof(buffer));
      if (n <= 0) break;
      line.append(buffer, n);
    }
    // What it prints later goes nowhere (it ignores SIGPIPE).
    close(out[0]);
    unsigned serving = 0;
    const size_t at = line.find("127.0.0.1:");
    if (at != std::string::npos && sscanf(line.c_str() + at, "127.0.0.1:%u/", &serving) == 1) {
      port_ = static_cast<uint16_t>(serving);
    }
  }
  ~DemoProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  DemoProcess(const DemoProcess&) = delete;
  DemoProcess& operator=(const DemoProcess&) = delete;

  bool ok() const { return pid_ > 0 && port_ != 0; }
  uint16_t port() const { return port_; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

  void signal(int number) {
    if (pid_ > 0) kill(pid_, number);
  }
  // Waits up to `timeout_ms` for the process to end; its exit status, 128 +
  // the signal that ended it, or -1 if it did not end in time.
  int waitForExit(int timeout_ms) {
    if (pid_ <= 0) return -1;
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (pidfd >= 0) {
      pollfd ended = {pidfd, POLLIN, 0};
      const int ready = poll(&ended, 1, timeout_ms);
      close(pidfd);
      if (ready <= 0) return -1;
    }
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  uint16_t port_ = 0;
};

// The server's /metrics text, or "" when it cannot be read.
inline std::string fetchMetrics(uint16_t port) {
  LoopbackClient client(port);
  if (!client.connected()) return "";
  client.write("GET /metrics HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n");
  const std::string answer = client.readToEnd();
  const size_t body = answer.find("\r\n\r\n");
  return body == std::string::npos ? "" : answer.substr(body + 4);
}

// The sum of the samples of `name` whose labels contain every one of
// `labels` (each written as it appears, `method="Echo"`); -1 when there is
// none.
inline double metricValue(const std::string& metrics, const std::string& name,
                          const std::vector<std::string>& labels = {}) {
  double sum = -1;
  size_t at = 0;
  while (at < metrics.size()) {
    size_t end = metrics.find('\n', at);
    if (end == std::string::npos) end = metrics.size();
    const std::string line = metrics.substr(at, end - at);
    at = end + 1;
    if (line.compare(0, name.size(), name) != 0) continue;
    if (line.size() <= name.size() || (line[name.size()] != ' ' && line[name.size()] != '{')) {
      continue;
    }
    bool matches = true;
    for (const std::string& label : labels)
      matches = matches && line.find(label) != std::string::npos;
    if (!matches) continue;
    sum = (sum < 0 ? 0 : sum) + strtod(line.c_str() + line.rfind(' ') + 1, nullptr);
  }
  return sum;
}

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_DEMO_PROCESS_H_
