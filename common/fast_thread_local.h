#ifndef COMMON_FAST_THREAD_LOCAL_H_
#define COMMON_FAST_THREAD_LOCAL_H_

// For the thread_local variables the library reads on every request or call:
// in a shared library a thread_local normally costs a call to
// __tls_get_addr per access, the initial-exec model one load. The library
// holds only a few hundred bytes of them, which fit the room glibc keeps in
// the static TLS block for libraries loaded later, so that dlopen still
// works.
#define VANTU_FAST_THREAD_LOCAL thread_local __attribute__((tls_model("initial-exec")))

#endif  // COMMON_FAST_THREAD_LOCAL_H_
