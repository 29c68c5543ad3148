#ifndef TESTS_SCRIPTED_SERVER_H_
#define TESTS_SCRIPTED_SERVER_H_

// A server with scripted answers, for client tests that need exact control of
// the bytes a client hears.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "relay/http_request_parser.h"

namespace vantu {
namespace testing {

// Listens on a free loopback port (in *port) for one connection. A small
// `receive_buffer` (bytes; 0: the default) keeps a client's large writes in
// the client's own output.
inline int listenOnLoopback(uint16_t* port, int receive_buffer = 0) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  if (receive_buffer > 0) {
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  socklen_t length = sizeof(address);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  *port = ntohs(address.sin_port);
  listen(listener, 1);
  return listener;
}

// Answers the i-th request of one connection with the i-th scripted answer
// ("{id}" stands for its Rpc-Id), can then end its output, and reads on until
// the client closes. What it received is readable after join().
class ScriptedServer {
 public:
  explicit ScriptedServer(std::vector<std::string> script, bool half_close_after_script = false)
      : script_(std::move(script)), half_close_(half_close_after_script) {
    listener_ = listenOnLoopback(&port_);
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedServer() {
    join();
    close(listener_);
  }
  // Waits until the client has closed the connection.
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  uint16_t port() const { return port_; }

  size_t received = 0;       // requests parsed
  std::string bytes;         // every byte received
  std::string after_script;  // the bytes received after the last answer
  bool saw_end = false;      // the client closed (rather than a guard time-out)

 private:
  void serve() {
    int connection = accept(listener_, nullptr, nullptr);
    timeval guard{30, 0};  // a client that never closes fails the test, not hangs it
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
    relay::HttpRequestParser parser;
    char buffer[4096];
    for (;;) {
      ssize_t n = recv(connection, buffer, sizeof(buffer), 0);
      if (n <= 0) {
        saw_end = n == 0;
        break;
      }
      const std::string chunk(buffer, n);
      bytes += chunk;
      if (received >= script_.size()) after_script += chunk;
      std::vector<relay::HttpRequestPtr> requests;
      parser.parse(chunk, &requests);
      for (const relay::HttpRequestPtr& request : requests) {
        if (received >= script_.size()) continue;
        std::string answer = script_[received++];
        size_t at = answer.find("{id}");
        if (at != std::string::npos) answer.replace(at, 4, request->headers["Rpc-Id"]);
        ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
        if (received == script_.size() && half_close_) ::shutdown(connection, SHUT_WR);
      }
    }
    close(connection);
  }

  std::vector<std::string> script_;
  bool half_close_;
  int listener_;
  uint16_t port_;
  std::thread thread_;
};

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_SCRIPTED_SERVER_H_
