#include "relay/resilient_channel.h"

#include <algorithm>
#include <functional>

#include "common/closure.h"
#include "common/deferred_deleter.h"
#include "common/fast_thread_local.h"
#include "common/weak_function.h"
#include "relay/rpc.h"

namespace vantu {
namespace relay {
namespace {

const std::string& headerOr(const HttpResponse& answer, const std::string& name) {
  static const std::string* const kMissing = new std::string();
  auto it = answer.headers.find(name);
  return it == answer.headers.end() ? *kMissing : it->second;
}

// Milliseconds left until `deadline`, rounded up, as the header carries them.
int64_t remainingMs(Time deadline, Time now) {
  return ((deadline - now).toMicroseconds() + 999) / 1000;
}

using DeadlineEntry = std::pair<Time, uint32_t>;

// Orders the deadline heap so that its top is the earliest.
struct Later {
  bool operator()(const DeadlineEntry& a, const DeadlineEntry& b) const {
    return a.first > b.first;
  }
};

}  // namespace

std::shared_ptr<ResilientChannel> ResilientChannel::create(const RPCTarget& target,
                                                           const RPCChannelOptions& options) {
  std::shared_ptr<ResilientChannel> channel(new ResilientChannel(options),
                                            LibEventThreadDeferredDeleter<ResilientChannel>());
  channel->endpoints_ = RPCEndpoints::create(target, options, channel.get());
  std::weak_ptr<ResilientChannel> weak = channel;
  channel->expire_ = makeWeakFunction(weak, std::bind(&ResilientChannel::expire, channel.get()));
  // Last: from here on the event thread may call the channel.
  channel->endpoints_->begin();
  return channel;
}

ResilientChannel::ResilientChannel(const RPCChannelOptions& options)
    : options_(options), calls_(std::make_shared<Calls>()) {}

ResilientChannel::~ResilientChannel() {
  // Nothing more is heard from the connections; they end at once.
  endpoints_->stop();
  std::vector<Call> pending;
  {
    MutexLock lock(calls_->mutex);
    for (auto& entry : calls_->pending) pending.push_back(entry.second);
    // Out of the table before anything is completed: a cancel under way on
    // another thread then finds nothing instead of completing a call twice.
    calls_->pending.clear();
  }
  std::sort(pending.begin(), pending.end(),
            [](const Call& a, const Call& b) { return a.id < b.id; });
  for (const Call& call : pending) complete(call, nullptr, "Canceled");
}

void ResilientChannel::callMethod(const google::protobuf::MethodDescriptor* method,
                                  google::protobuf::RpcController* controller,
                                  const google::protobuf::Message* request,
                                  google::protobuf::Message* response,
                                  google::protobuf::Closure* done) {
  if (controller->IsCanceled()) return;
  RPC* rpc = static_cast<RPC*>(controller);
  Call call;
  call.method = method;
  call.controller = rpc;
  call.request = request;
  call.response = response;
  call.done = done;
  call.deadline = rpc->deadline();
  if (call.deadline == Time() && options_.default_timeout > Duration()) {
    call.deadline = Time::now() + options_.default_timeout;
  }
  {
    MutexLock lock(calls_->mutex);
    if (options_.max_pending > 0 && calls_->pending.size() >= options_.max_pending) {
      call.id = 0;
    } else {
      // Zero is what an answer without an id reads as; an id still pending
      // after the counter wrapped is not given twice.
      do {
        call.id = ++calls_->next_id;
      } while (call.id == 0 || calls_->pending.count(call.id) != 0);
      calls_->pending.emplace(call.id, call);
    }
  }
  if (call.id == 0) {
    complete(call, nullptr, RPCChannel::kErrorTooManyPending);
    return;
  }
  // Registered once the call is in the table, so that a cancel that comes
  // first (NotifyOnCancel then runs it at once) finds the call and completes
  // it. Self-deleting: run once and freed by itself, or discarded unrun (and
  // freed) by the controller when the call completes.
  controller->NotifyOnCancel(
      newClosure(makeWeakFunction(std::weak_ptr<Calls>(calls_),
                                  std::bind(&Calls::onCancel, calls_.get(), call.id)),
                 true));
  MutexLock lock(calls_->mutex);
  auto it = calls_->pending.find(call.id);
  if (it == calls_->pending.end()) return;  // canceled already
  it->second.waiting = true;
  calls_->unwritten.push_back(call.id);
  if (call.deadline != Time()) calls_->deadlines.push(call.deadline, call.id);
  requestFlush();
}

void ResilientChannel::requestFlush() {
  if (isEventThread() && handling_answers_) {
    flush_after_answers_ = true;
    return;
  }
  if (calls_->flush_queued) return;
  calls_->flush_queued = true;
  std::weak_ptr<ResilientChannel> weak = weak_from_this();
  defer(makeWeakFunction(weak, std::bind(&ResilientChannel::flush, this)));
}

void ResilientChannel::flush() {
  std::vector<Call> unreachable;
  // A TLS failure is not waited out: the calls hear why at once, as they
  // would with fail_fast, once no server can take them.
  const std::string tls_failure = endpoints_->tlsFailure();
  const bool give_up = (options_.fail_fast || !tls_failure.empty()) && endpoints_->unreachable();
  {
    MutexLock lock(calls_->mutex);
    calls_->flush_queued = false;
    const Time now = Time::now();
    while (!calls_->unwritten.empty()) {
      auto it = calls_->pending.find(calls_->unwritten.front());
      if (it == calls_->pending.end() || !it->second.waiting) {
        calls_->unwritten.pop_front();
        continue;
      }
      Call& call = it->second;
      const bool late = call.deadline != Time() && call.deadline <= now;
      RPCConnection* connection = late ? nullptr : endpoints_->pick();
      if (connection == nullptr && !late && !give_up) {
        break;  // waits for a connection
      }
      calls_->unwritten.pop_front();
      if (connection == nullptr) {
        // Its deadline came before a server did, or no server can be reached
        // and the caller asked to hear so at once.
        unreachable.push_back(call);
        calls_->pending.erase(it);
        continue;
      }
      write(&call, connection);
    }
    armDeadlineTimer();
  }
  for (const Call& call : unreachable) {
    complete(call, nullptr, tls_failure.empty() ? RPCChannel::kErrorUnreachable : tls_failure);
  }
}

void ResilientChannel::write(Call* call, RPCConnection* connection) {
  call->waiting = false;
  call->connection = connection;
  connection->outstanding.fetch_add(1, std::memory_order_relaxed);
  // Written on the event thread, into buffers it keeps from call to call.
  VANTU_FAST_THREAD_LOCAL std::string body;
  VANTU_FAST_THREAD_LOCAL std::string head;
  call->request->SerializeToString(&body);
  head.clear();
  appendCallHead(&head, body.size(), call->id, *call->method);
  if (call->deadline != Time()) {
    head.append(RPCChannel::kHeaderTimeout).append(": ");
    head.append(std::to_string(remainingMs(call->deadline, Time::now())));
    head.append("\r\n");
  }
  head.append("\r\n");
  sendCall(connection, head, &body);
  // A huge request's buffers are not kept.
  if (body.capacity() > (1 << 20)) std::string().swap(body);
}

bool ResilientChannel::isStale(const std::unordered_map<uint32_t, Call>& pending,
                               const std::pair<Time, uint32_t>& entry) {
  auto it = pending.find(entry.second);
  return it == pending.end() || it->second.deadline != entry.first;
}

void ResilientChannel::armDeadlineTimer() {
  // Looked at inside arm(), with the lock still held.
  const std::unordered_map<uint32_t, Call>* pending = &calls_->pending;
  calls_->deadlines.arm(
      [pending](const std::pair<Time, uint32_t>& entry) { return isStale(*pending, entry); },
      expire_);
}

void ResilientChannel::expire() {
  std::vector<std::pair<Call, const std::string*>> expired;
  std::vector<RPCConnection*> touched;
  {
    MutexLock lock(calls_->mutex);
    calls_->deadlines.timerFired();
    for (const auto& entry : calls_->deadlines.takeDue(Time::now())) {
      if (isStale(calls_->pending, entry)) continue;
      auto it = calls_->pending.find(entry.second);
      Call& call = it->second;
      // Written (even on a connection since lost) or not: whether the
      // server may have run it.
      const bool written = call.connection != nullptr || call.orphaned;
      if (call.connection != nullptr) {
        call.connection->outstanding.fetch_sub(1, std::memory_order_relaxed);
        touched.push_back(call.connection);
      }
      expired.emplace_back(
          call, written ? &RPCChannel::kErrorDeadlineExceeded : &RPCChannel::kErrorUnreachable);
      calls_->pending.erase(it);
    }
    armDeadlineTimer();
  }
  for (RPCConnection* connection : touched) closeIfRetiredAndIdle(connection);
  for (const auto& entry : expired) complete(entry.first, nullptr, *entry.second);
}

void ResilientChannel::closeIfRetiredAndIdle(RPCConnection* connection) {
  if (connection->state() == RPCConnection::State::kRetiring &&
      connection->outstanding.load(std::memory_order_relaxed) == 0) {
    connection->shutdown();
  }
}

void ResilientChannel::connectionReady(RPCConnection*) { flush(); }

void ResilientChannel::answersArrived(RPCConnection* connection,
                                      const std::vector<HttpResponsePtr>& answers) {
  handling_answers_ = true;
  // Read once: answers of one read arrived together.
  Time now;
  for (const HttpResponsePtr& answer : answers) {
    const uint32_t id = readCallNumber(headerOr(*answer, RPCChannel::kHeaderId));
    Call call;
    bool past_deadline = false;
    {
      MutexLock lock(calls_->mutex);
      auto it = calls_->pending.find(id);
      // Late (cancelled, past its deadline), unknown, or not written here.
      if (it == calls_->pending.end() || it->second.connection != connection) continue;
      connection->outstanding.fetch_sub(1, std::memory_order_relaxed);
      const bool failed =
          static_cast<int32_t>(readCallNumber(headerOr(*answer, RPCChannel::kHeaderFailed))) != 0;
      if (failed && options_.reconnect && headerOr(*answer, RPCChannel::kHeaderNotRun) == "1") {
        // The server did not run it: it goes out again, first in line.
        it->second.connection = nullptr;
        it->second.waiting = true;
        calls_->unwritten.push_front(id);
        requestFlush();
        continue;
      }
      call = it->second;
      calls_->pending.erase(it);
      // A server that honours the deadline we sent fails the call when it
      // passes; if that answer is read before our own timer runs (both were
      // due in the same turn of a busy event thread), the caller still hears
      // that the deadline passed, not the server's words for it.
      if (failed && call.deadline != Time()) {
        if (now == Time()) now = Time::now();
        past_deadline = call.deadline <= now;
      }
    }
    if (past_deadline) {
      complete(call, nullptr, RPCChannel::kErrorDeadlineExceeded);
    } else {
      complete(call, answer.get(), std::string());
    }
  }
  handling_answers_ = false;
  closeIfRetiredAndIdle(connection);
  if (flush_after_answers_) {
    flush_after_answers_ = false;
    flush();
  }
}

void ResilientChannel::connectionLost(RPCConnection* connection) {
  std::vector<Call> lost;
  // A connection that TLS broke (a server that refused our certificate
  // after the handshake, say) fails its calls with the reason, whatever
  // the options: waiting for an answer would be waiting for ever.
  const std::string tls_error = connection->tlsError().empty() ? std::string()
                                                               : connection->address().toString() +
                                                                     ": " + connection->tlsError();
  {
    MutexLock lock(calls_->mutex);
    for (auto& entry : calls_->pending) {
      Call& call = entry.second;
      if (call.connection != connection) continue;
      call.connection = nullptr;
      if (options_.reconnect || !tls_error.empty()) {
        lost.push_back(call);
      } else {
        // As on the channel of create(address): never answered, pending
        // until its deadline, a cancel or the channel's end.
        call.orphaned = true;
      }
    }
    for (const Call& call : lost) calls_->pending.erase(call.id);
    connection->outstanding.store(0, std::memory_order_relaxed);
  }
  std::sort(lost.begin(), lost.end(), [](const Call& a, const Call& b) { return a.id < b.id; });
  for (const Call& call : lost) {
    complete(call, nullptr, tls_error.empty() ? RPCChannel::kErrorConnectionLost : tls_error);
  }
  // Calls waiting for a connection may find another one.
  flush();
}

void ResilientChannel::resolveFailed() { flush(); }

void ResilientChannel::Calls::onCancel(uint32_t id) {
  Call call;
  {
    MutexLock lock(mutex);
    auto it = pending.find(id);
    if (it == pending.end()) return;
    call = it->second;
    if (call.connection != nullptr) {
      call.connection->outstanding.fetch_sub(1, std::memory_order_relaxed);
    }
    pending.erase(it);
  }
  complete(call, nullptr, "Canceled");
}

void ResilientChannel::complete(const Call& call, const HttpResponse* answer,
                                const std::string& error) {
  if (answer == nullptr) {
    call.controller->SetFailed(error);
  } else if (static_cast<int32_t>(readCallNumber(headerOr(*answer, RPCChannel::kHeaderFailed))) !=
             0) {
    call.controller->SetFailed(headerOr(*answer, RPCChannel::kHeaderError));
  } else if (call.response->ParseFromString(answer->body)) {
    call.controller->setDone();
  } else {
    call.controller->SetFailed("Can't parse response.");
  }
  if (call.done != nullptr) call.done->Run();
}

}  // namespace relay
}  // namespace vantu
