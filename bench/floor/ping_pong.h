// The floor of the RPC benchmark at one call in flight: fixed-size messages
// bounced over one loopback TCP connection with nothing on either side but the
// sockets, and, for the second client, the hand-off between the calling thread
// and an event thread that an RPC channel cannot avoid. bench/rpc_bench.cc
// measures both clients beside our RPCChannel.
#ifndef BENCH_FLOOR_PING_PONG_H_
#define BENCH_FLOOR_PING_PONG_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bench_floor {

// About the size of an RPC echo request or reply with its HTTP header.
constexpr size_t kMessageSize = 200;

// Echoes every kMessageSize-byte message back on the connection it came on:
// blocking sockets, one thread per connection. Owned by its creator; start and
// the destructor from one thread.
class PingPongServer {
 public:
  // `stream`: echo the byte stream as it comes, whatever the message size
  // (the floor of the large-message echo), instead of kMessageSize pieces.
  explicit PingPongServer(bool stream = false) : stream_(stream) {}
  // Stops accepting, ends every connection and joins the threads.
  ~PingPongServer();
  PingPongServer(const PingPongServer&) = delete;
  PingPongServer& operator=(const PingPongServer&) = delete;

  // Listens on 127.0.0.1 on a port the kernel chooses; false (with the reason
  // on stderr) when it cannot.
  bool start();
  uint16_t port() const { return port_; }

 private:
  void acceptLoop();
  static void echoLoop(int fd);
  static void streamEchoLoop(int fd);

  const bool stream_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::thread acceptor_;
  // Guarded by mutex_: the connections' sockets and threads.
  std::mutex mutex_;
  std::vector<int> connections_;
  std::vector<std::thread> echoers_;
};

// Sends a message and blocks in recv until its echo is back: the least one
// round trip over the loopback can cost. One thread at a time.
class BlockingPingPongClient {
 public:
  BlockingPingPongClient() = default;
  ~BlockingPingPongClient();
  BlockingPingPongClient(const BlockingPingPongClient&) = delete;
  BlockingPingPongClient& operator=(const BlockingPingPongClient&) = delete;

  // False (with the reason in error()) when the connection cannot be made.
  bool connect(uint16_t port);
  // One message there and back; false when the connection failed or the echo
  // differs from what was sent (error() says which).
  bool roundTrip();
  const std::string& error() const { return error_; }

 private:
  int fd_ = -1;
  uint64_t sequence_ = 0;
  char out_[kMessageSize] = {};
  char in_[kMessageSize] = {};
  std::string error_;
};

// Does what an RPC channel must: the calling thread hands each message to an
// event thread (waking it through an eventfd), the event thread writes it,
// reads the echo when epoll reports it, and wakes the caller through a
// condition variable. roundTrip from one thread at a time; the event thread is
// this object's own.
class EventThreadPingPongClient {
 public:
  EventThreadPingPongClient() = default;
  // Stops and joins the event thread, closes the connection.
  ~EventThreadPingPongClient();
  EventThreadPingPongClient(const EventThreadPingPongClient&) = delete;
  EventThreadPingPongClient& operator=(const EventThreadPingPongClient&) = delete;

  // Connects and starts the event thread; false (with error()) on failure.
  bool connect(uint16_t port);
  bool roundTrip();
  // Why the last round trip failed.
  std::string error();

 private:
  void eventLoop();
  // Event thread: the caller handed over a message.
  void writeRequest();
  // Event thread: bytes of the echo arrived.
  void readReply();
  // Event thread: completes the round trip in progress.
  void answer(bool ok, const std::string& error);

  // Constant while the event thread runs.
  int fd_ = -1;
  int wake_ = -1;  // eventfd: a message to send, or stop
  int epoll_ = -1;
  std::thread thread_;

  // Event thread only, while a round trip is in progress.
  char in_[kMessageSize] = {};
  size_t received_ = 0;

  // Guarded by mutex_.
  std::mutex mutex_;
  std::condition_variable answered_;
  char out_[kMessageSize] = {};
  bool stopping_ = false;
  bool waiting_ = false;  // a round trip is in progress
  bool ok_ = false;
  std::string error_;
  uint64_t sequence_ = 0;
};

// Keeps `in_flight` messages of one size going over one connection to a
// stream-echoing PingPongServer: each message's bytes are written as soon as
// fewer than `in_flight` are unanswered, and a message is answered when as
// many bytes as it and every earlier one came back. Non-blocking, one thread,
// poll: neither side's buffers can fill up against the other. One thread at a
// time.
class StreamEchoClient {
 public:
  using Clock = std::chrono::steady_clock;
  // Told each answered message's send time; false stops issuing new ones.
  using Answered = std::function<bool(Clock::time_point issued)>;

  StreamEchoClient() = default;
  ~StreamEchoClient();
  StreamEchoClient(const StreamEchoClient&) = delete;
  StreamEchoClient& operator=(const StreamEchoClient&) = delete;

  bool connect(uint16_t port);
  // Runs until `answered` says stop and every message issued came back; false
  // (with error()) when the connection fails or nothing moves for `stall`.
  bool run(size_t message_size, int in_flight, std::chrono::milliseconds stall,
           const Answered& answered);
  const std::string& error() const { return error_; }

 private:
  int fd_ = -1;
  std::string error_;
};

}  // namespace bench_floor

#endif  // BENCH_FLOOR_PING_PONG_H_
