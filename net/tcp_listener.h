#ifndef NET_TCP_LISTENER_H_
#define NET_TCP_LISTENER_H_

#include "common/event_thread.h"
#include "common/mutex.h"
#include "common/socket_address.h"

struct evconnlistener;
struct sockaddr;

namespace vantu {
namespace relay {

// A listening TCP socket whose accepted connections are handed, as
// non-blocking file descriptors, to connectionCallback on the event thread.
//
// Owned by whoever made the derived object. initialize, localAddress and the
// destructor may be called from any thread (initialize and the destructor do
// their work on the event thread and wait for it); connectionCallback runs on
// the event thread only.
class TcpListener {
 public:
  virtual ~TcpListener();
  TcpListener(const TcpListener&) = delete;
  TcpListener& operator=(const TcpListener&) = delete;

  // Binds (SO_REUSEADDR, and SO_REUSEPORT when asked) and listens on
  // `address`; port 0 picks a free port. False when that fails (address in use
  // or unusable, already listening).
  bool initialize(const SocketAddress& address);
  // SO_REUSEPORT: several listening sockets, in this process or others, share
  // one port and the kernel spreads the connections. Call before initialize.
  void setReusePort(bool reuse_port) { reuse_port_ = reuse_port; }
  // The address actually bound, once initialize succeeded; not valid before.
  SocketAddress localAddress() const;

 protected:
  // `backlog`: the listen queue length; 0 or less means the system's maximum.
  explicit TcpListener(int backlog);

  // Takes ownership of `fd`, an accepted connection. Event thread.
  virtual void connectionCallback(int fd) = 0;

  // Stops accepting; idempotent. A derived class calls it from its own
  // destructor, so that no connection reaches an object half destroyed.
  void stopListening();

  // Accepting pauses (the kernel keeps queueing up to the backlog) and
  // resumes. Event thread.
  void pauseAccepting();
  void resumeAccepting();

 private:
  static void onAccept(struct evconnlistener* listener, int fd, struct sockaddr* address,
                       int length, void* arg);
  static void onAcceptError(struct evconnlistener* listener, void* arg);
  bool listenOnEventThread(const SocketAddress& address);
  void closeOnEventThread();
  // Process exit: closes every listener still open.
  static void closeAllOpen();

  // Constant after construction.
  const int backlog_;
  // Set before initialize.
  bool reuse_port_ = false;

  mutable Mutex mutex_;
  SocketAddress local_address_ VANTU_GUARDED_BY(mutex_);

  // Event thread only.
  struct evconnlistener* listener_ = nullptr;
  TimerHandle resume_timer_;  // re-enables accepting after running out of descriptors
  bool paused_by_error_ = false;
  bool paused_by_owner_ = false;
};

}  // namespace relay
}  // namespace vantu

#endif  // NET_TCP_LISTENER_H_
