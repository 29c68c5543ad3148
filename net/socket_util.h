#ifndef NET_SOCKET_UTIL_H_
#define NET_SOCKET_UTIL_H_

namespace vantu {
namespace relay {
namespace internal {

// Helpers shared by the listener and the sockets; any thread.

// Once per process: raises the soft limit on open files to the hard limit, so
// that a server can hold many thousands of connections.
void raiseOpenFileLimit();

// O_NONBLOCK and FD_CLOEXEC on `fd`; false when either fails.
bool makeNonBlocking(int fd);

// TCP_NODELAY: small responses leave at once instead of waiting for an ACK.
void disableNagle(int fd);

}  // namespace internal
}  // namespace relay
}  // namespace vantu

#endif  // NET_SOCKET_UTIL_H_
