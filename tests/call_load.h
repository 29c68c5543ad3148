#ifndef TESTS_CALL_LOAD_H_
#define TESTS_CALL_LOAD_H_

// Keeps a number of calls in flight on one channel until told to stop, for
// tests of what a channel does under load: every completion is counted and
// issues the next call from inside its done closure.

#include <google/protobuf/service.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "relay/rpc.h"

namespace vantu {
namespace testing {

// `Request` and `Reply` are the method's messages, whose `text` the server
// echoes. Done closures run on the event thread; the counts read from any.
template <typename Request, typename Reply>
class CallLoad {
 public:
  CallLoad(relay::RPCChannel* channel, const google::protobuf::MethodDescriptor* method,
           int in_flight)
      : channel_(channel), method_(method) {
    for (int i = 0; i < in_flight; ++i) slots_.push_back(std::make_unique<Slot>(this, i));
  }
  ~CallLoad() { stop(); }
  CallLoad(const CallLoad&) = delete;
  CallLoad& operator=(const CallLoad&) = delete;

  void start() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      running_ = true;
      outstanding_ = static_cast<int>(slots_.size());
    }
    for (auto& slot : slots_) issue(slot.get());
  }
  // Issues nothing more and waits (bounded) for the calls in flight; false
  // when some never completed.
  bool stop() {
    std::unique_lock<std::mutex> lock(mutex_);
    running_ = false;
    return changed_.wait_for(lock, std::chrono::seconds(30), [&] { return outstanding_ == 0; });
  }
  // Waits (bounded) until `count` more calls have succeeded than now.
  bool waitForMore(uint64_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t target = ok_ + count;
    return changed_.wait_for(lock, std::chrono::seconds(30), [&] { return ok_ >= target; });
  }
  uint64_t succeeded() {
    std::lock_guard<std::mutex> lock(mutex_);
    return ok_;
  }
  // Failures by error text.
  std::map<std::string, uint64_t> failures() {
    std::lock_guard<std::mutex> lock(mutex_);
    return failures_;
  }
  // Keeps, from now on, how long each call that succeeds took, in microseconds.
  void keepLatencies() {
    std::lock_guard<std::mutex> lock(mutex_);
    keep_latencies_ = true;
  }
  std::vector<double> takeLatencies() {
    std::lock_guard<std::mutex> lock(mutex_);
    keep_latencies_ = false;
    return std::move(latencies_us_);
  }

 private:
  struct Slot : google::protobuf::Closure {
    Slot(CallLoad* load, int index) : load(load), index(index) {}
    void Run() override { load->completed(this); }
    CallLoad* const load;
    const int index;
    relay::RPC rpc;
    Request request;
    Reply reply;
    uint64_t sequence = 0;
    std::chrono::steady_clock::time_point issued;
  };

  void issue(Slot* slot) {
    slot->rpc.Reset();
    slot->reply.Clear();
    slot->request.set_text(std::to_string(slot->index) + "/" + std::to_string(++slot->sequence));
    slot->issued = std::chrono::steady_clock::now();
    channel_->CallMethod(method_, &slot->rpc, &slot->request, &slot->reply, slot);
  }

  void completed(Slot* slot) {
    bool again;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (slot->rpc.Failed()) {
        ++failures_[slot->rpc.ErrorText()];
      } else if (slot->reply.text() != slot->request.text()) {
        ++failures_["wrong reply: " + slot->reply.text()];
      } else {
        ++ok_;
        if (keep_latencies_) {
          latencies_us_.push_back(std::chrono::duration<double, std::micro>(
                                      std::chrono::steady_clock::now() - slot->issued)
                                      .count());
        }
      }
      again = running_;
      if (!again) --outstanding_;
      changed_.notify_all();
    }
    if (again) issue(slot);
  }

  relay::RPCChannel* const channel_;
  const google::protobuf::MethodDescriptor* const method_;
  std::vector<std::unique_ptr<Slot>> slots_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool running_ = false;
  int outstanding_ = 0;
  uint64_t ok_ = 0;
  std::map<std::string, uint64_t> failures_;
  bool keep_latencies_ = false;
  std::vector<double> latencies_us_;
};

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_CALL_LOAD_H_
