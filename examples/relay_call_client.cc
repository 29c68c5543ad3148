#include "relay_call_client.h"

#include <fcntl.h>
#include <google/protobuf/util/json_util.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "common/event_thread.h"
#include "relay/http_request_parser.h"

namespace relay_call {
namespace {

// Milliseconds left before `deadline`, at least 0.
int remainingMs(vantu::Time deadline) {
  const vantu::Time now = vantu::Time::now();
  if (now >= deadline) return 0;
  return static_cast<int>((deadline - now).toMicroseconds() / 1000) + 1;
}

// A plain blocking socket connected to `address` before the deadline, or -1
// with the reason.
int connectSocket(const vantu::SocketAddress& address, vantu::Time deadline, std::string* error) {
  const int fd = ::socket(address.sockaddr()->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = std::string("socket: ") + strerror(errno);
    return -1;
  }
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  int result = ::connect(fd, address.sockaddr(), address.length());
  if (result != 0 && errno == EINPROGRESS) {
    pollfd waiting{fd, POLLOUT, 0};
    do {
      result = poll(&waiting, 1, remainingMs(deadline));
    } while (result < 0 && errno == EINTR);
    if (result == 0) {
      ::close(fd);
      *error = "timeout";
      return -1;
    }
    int so_error = 0;
    socklen_t length = sizeof(so_error);
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &so_error, &length);
    errno = so_error;
    result = so_error == 0 ? 0 : -1;
  }
  if (result != 0) {
    *error = "cannot connect to " + address.toString() + ": " + strerror(errno);
    ::close(fd);
    return -1;
  }
  fcntl(fd, F_SETFL, flags);
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  return fd;
}

// Closes the socket when the call is over, whichever way it ends.
class FdCloser {
 public:
  explicit FdCloser(int fd) : fd_(fd) {}
  ~FdCloser() { ::close(fd_); }
  FdCloser(const FdCloser&) = delete;
  FdCloser& operator=(const FdCloser&) = delete;

 private:
  const int fd_;
};

std::string headerOr(const vantu::relay::HttpResponse& response, const std::string& name) {
  auto it = response.headers.find(name);
  return it == response.headers.end() ? std::string() : it->second;
}

// The addresses of `target`'s servers, in order; names looked up here.
std::vector<vantu::SocketAddress> addressesOf(const vantu::relay::RPCTarget& target,
                                              std::string* error) {
  std::vector<vantu::SocketAddress> addresses;
  for (const vantu::relay::RPCTarget::HostPort& host : target.hosts) {
    vantu::SocketAddress literal(host.host, host.port);
    if (literal.isValid()) {
      addresses.push_back(literal);
      continue;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host.host.c_str(), nullptr, &hints, &found);
    if (result != 0) {
      *error = "cannot resolve " + host.host + ": " + gai_strerror(result);
      continue;
    }
    for (addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
      vantu::SocketAddress address =
          vantu::SocketAddress::fromSockaddr(entry->ai_addr, entry->ai_addrlen);
      if (address.isValid()) addresses.push_back(vantu::SocketAddress(address.ip(), host.port));
    }
    freeaddrinfo(found);
  }
  return addresses;
}

}  // namespace

Caller::Caller(std::string address, int timeout_ms, vantu::relay::TlsClientOptions tls)
    : address_(std::move(address)),
      timeout_ms_(timeout_ms),
      deadline_(vantu::Time::now() + vantu::Duration::milliseconds(timeout_ms)),
      tls_(std::move(tls)) {}

Caller::~Caller() {
  // The channel dies on the event thread; wait for it, so that nothing of it
  // is left running when the process exits.
  channel_.reset();
  vantu::waitForDeferredWork();
}

ExitCode Caller::call(Wire wire, const google::protobuf::MethodDescriptor& method,
                      const google::protobuf::Message& request, google::protobuf::Message* response,
                      std::string* error) {
  return wire == Wire::kJson ? callJson(method, request, response, error)
                             : callBinary(method, request, response, error);
}

std::string Caller::timeoutText() const {
  return "no answer within " + std::to_string(timeout_ms_) + " ms";
}

ExitCode Caller::callBinary(const google::protobuf::MethodDescriptor& method,
                            const google::protobuf::Message& request,
                            google::protobuf::Message* response, std::string* error) {
  if (!channel_) {
    // Every server of the target is tried; one that is down is skipped. A
    // target where none can be reached is said at once rather than waited
    // out: this is a one-shot tool.
    vantu::relay::RPCChannelOptions options = vantu::relay::RPCChannelOptions::resilient();
    options.connect_timeout = vantu::Duration::milliseconds(timeout_ms_);
    options.default_timeout = vantu::Duration();
    options.fail_fast = true;
    options.tls = tls_;
    channel_ = vantu::relay::RPCChannel::create(address_, options);
    if (!channel_) {
      *error = "cannot use " + address_;
      return kExitCallFailed;
    }
  }
  vantu::relay::RPC controller;
  controller.setDeadline(deadline_);
  channel_->CallMethod(&method, &controller, &request, response, nullptr);
  controller.wait();
  if (controller.ErrorText() == vantu::relay::RPCChannel::kErrorUnreachable) {
    *error = remainingMs(deadline_) == 0 ? timeoutText() : "cannot connect to " + address_;
    return kExitCallFailed;
  }
  if (controller.ErrorText() == vantu::relay::RPCChannel::kErrorDeadlineExceeded) {
    *error = timeoutText();
    return kExitCallFailed;
  }
  if (controller.Failed()) {
    *error = controller.ErrorText().empty() ? "the call failed" : controller.ErrorText();
    return kExitCallFailed;
  }
  return kExitOk;
}

ExitCode Caller::callJson(const google::protobuf::MethodDescriptor& method,
                          const google::protobuf::Message& request,
                          google::protobuf::Message* response, std::string* error) {
  std::string body;
  if (!google::protobuf::util::MessageToJsonString(request, &body).ok()) {
    *error = "cannot write the request as JSON";
    return kExitCallFailed;
  }
  vantu::relay::RPCTarget target;
  vantu::relay::RPCTarget::parse(address_, &target, error);
  // The first server that takes the connection.
  std::vector<vantu::SocketAddress> addresses = addressesOf(target, error);
  int fd = -1;
  vantu::SocketAddress server;
  for (const vantu::SocketAddress& address : addresses) {
    fd = connectSocket(address, deadline_, error);
    if (fd >= 0) {
      server = address;
      break;
    }
    if (*error == "timeout") {
      *error = timeoutText();
      return kExitCallFailed;
    }
  }
  if (fd < 0) {
    if (addresses.empty() && error->empty()) *error = "no address for " + address_;
    return kExitCallFailed;
  }
  error->clear();
  const std::string host_header = server.toString();
  const uint32_t id = ++next_json_id_;
  const std::string head =
      "POST / HTTP/1.1\r\nHost: " + host_header + "\r\nContent-Type: application/json\r\n" +
      "Content-Length: " + std::to_string(body.size()) + "\r\n" +
      vantu::relay::RPCChannel::kHeaderId + ": " + std::to_string(id) + "\r\n" +
      vantu::relay::RPCChannel::kHeaderService + ": " + method.service()->full_name() + "\r\n" +
      vantu::relay::RPCChannel::kHeaderMethod + ": " + method.name() + "\r\n" +
      vantu::relay::RPCChannel::kHeaderTimeout + ": " + std::to_string(remainingMs(deadline_)) +
      "\r\n\r\n";
  FdCloser closer(fd);
  const std::string bytes = head + body;
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = std::string("sending the request: ") + strerror(errno);
      return kExitCallFailed;
    }
    sent += n;
  }

  vantu::relay::HttpResponseParser parser;
  std::vector<vantu::relay::HttpResponsePtr> responses;
  while (responses.empty()) {
    pollfd readable{fd, POLLIN, 0};
    const int ready = poll(&readable, 1, remainingMs(deadline_));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      *error = timeoutText();
      return kExitCallFailed;
    }
    char buffer[65536];
    const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = "the connection closed before the answer came";
      return kExitCallFailed;
    }
    if (!parser.parse(std::string(buffer, n), &responses) && responses.empty()) {
      *error = "the answer is not HTTP";
      return kExitCallFailed;
    }
  }

  const vantu::relay::HttpResponse& answer = *responses.front();
  if (answer.status_code != 200) {
    *error =
        "HTTP " + std::to_string(static_cast<int>(answer.status_code)) + " " + answer.status_string;
    return kExitCallFailed;
  }
  if (vantu::relay::readCallNumber(headerOr(answer, vantu::relay::RPCChannel::kHeaderFailed)) !=
      0) {
    const std::string text = headerOr(answer, vantu::relay::RPCChannel::kHeaderError);
    *error = text.empty() ? "the call failed" : text;
    return kExitCallFailed;
  }
  const auto status = google::protobuf::util::JsonStringToMessage(answer.body, response);
  if (!status.ok()) {
    *error = "Can't parse response. (" + std::string(status.message()) + ")";
    return kExitCallFailed;
  }
  return kExitOk;
}

}  // namespace relay_call
