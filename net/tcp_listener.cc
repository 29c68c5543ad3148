#include "net/tcp_listener.h"

#include <errno.h>
#include <event2/listener.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <unordered_set>

#include "common/event_thread_check.h"
#include "common/logging.h"
#include "net/socket_util.h"

namespace vantu {
namespace relay {
namespace {

// How long accepting pauses when the process has no descriptors left; without
// the pause a level-triggered listener would spin on the failing accept.
constexpr Duration kAcceptPause = Duration::milliseconds(100);

// Event thread only: listeners currently accepting.
std::unordered_set<TcpListener*>& openListeners() {
  static auto* listeners = new std::unordered_set<TcpListener*>;
  return *listeners;
}

}  // namespace

TcpListener::TcpListener(int backlog) : backlog_(backlog) { internal::raiseOpenFileLimit(); }

TcpListener::~TcpListener() { stopListening(); }

bool TcpListener::initialize(const SocketAddress& address) {
  bool ok = false;
  if (!runOnEventThreadAndWait([&] { ok = listenOnEventThread(address); })) return false;
  return ok;
}

SocketAddress TcpListener::localAddress() const {
  MutexLock lock(mutex_);
  return local_address_;
}

void TcpListener::stopListening() {
  // After the event thread stopped, process exit already closed the listener.
  runOnEventThreadAndWait([this] { closeOnEventThread(); });
}

bool TcpListener::listenOnEventThread(const SocketAddress& address) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_listener");
  struct event_base* base = eventThreadBase();
  if (listener_ != nullptr || base == nullptr || !address.isValid()) return false;
  int fd = ::socket(address.sockaddr()->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return false;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  if (reuse_port_ && setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one)) != 0) {
    ::close(fd);
    return false;
  }
  if (::bind(fd, address.sockaddr(), address.length()) != 0 ||
      ::listen(fd, backlog_ > 0 ? backlog_ : SOMAXCONN) != 0) {
    ::close(fd);
    return false;
  }
  sockaddr_storage bound;
  socklen_t length = sizeof(bound);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
    ::close(fd);
    return false;
  }
  // Backlog 0: already listening. Accepted sockets come non-blocking and
  // close-on-exec.
  listener_ = evconnlistener_new(base, &TcpListener::onAccept, this,
                                 LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, fd);
  if (listener_ == nullptr) {
    ::close(fd);
    return false;
  }
  evconnlistener_set_error_cb(listener_, &TcpListener::onAcceptError);
  static std::once_flag hook_once;
  std::call_once(hook_once, [] { atEventThreadStop(&TcpListener::closeAllOpen); });
  openListeners().insert(this);
  MutexLock lock(mutex_);
  local_address_ = SocketAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&bound), length);
  return true;
}

void TcpListener::pauseAccepting() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_listener");
  paused_by_owner_ = true;
  if (listener_ != nullptr) evconnlistener_disable(listener_);
}

void TcpListener::resumeAccepting() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_listener");
  paused_by_owner_ = false;
  if (listener_ != nullptr && !paused_by_error_) evconnlistener_enable(listener_);
}

void TcpListener::closeOnEventThread() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_listener");
  resume_timer_.cancel();
  if (listener_ == nullptr) return;
  openListeners().erase(this);
  evconnlistener_free(listener_);
  listener_ = nullptr;
}

void TcpListener::closeAllOpen() {
  // Copied: closing erases from the set.
  std::unordered_set<TcpListener*> listeners = openListeners();
  for (TcpListener* listener : listeners) listener->closeOnEventThread();
}

void TcpListener::onAccept(struct evconnlistener*, int fd, struct sockaddr*, int, void* arg) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_listener");
  static_cast<TcpListener*>(arg)->connectionCallback(fd);
}

void TcpListener::onAcceptError(struct evconnlistener* listener, void* arg) {
  int error = errno;
  auto* self = static_cast<TcpListener*>(arg);
  VANTU_LOG(2, "net", "net/tcp_listener") << "accept failed: " << strerror(error);
  if (error != EMFILE && error != ENFILE && error != ENOBUFS && error != ENOMEM) return;
  evconnlistener_disable(listener);
  self->paused_by_error_ = true;
  self->resume_timer_ = scheduleDeferred(
      [self] {
        self->paused_by_error_ = false;
        if (self->listener_ != nullptr && !self->paused_by_owner_) {
          evconnlistener_enable(self->listener_);
        }
      },
      kAcceptPause);
}

}  // namespace relay
}  // namespace vantu
