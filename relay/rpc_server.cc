// The server side of RPC: HttpServerImpl::handleRPCs turns a request that
// names a service into a call of its method, and RPCDone writes the answer
// when the service completes it, on whichever thread that is.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/type_resolver.h>

#include <charconv>
#include <memory>
#include <string>

#include "common/closure.h"
#include "common/event_thread.h"
#include "common/logging.h"
#include "common/map_util.h"
#include "common/memory_policy.h"
#include "common/weak_function.h"
#include "relay/call_record_cache.h"
#include "relay/http_server.h"
#include "relay/http_server_observer.h"
#include "relay/rpc.h"
#include "relay/rpc_deadline.h"

namespace vantu {
namespace relay {
namespace {

// The records these calls log carry the server's logger and file name.
constexpr char kLogger[] = "http_server";
constexpr char kSourceFile[] = "relay/http_server";

// A call whose request body is larger frees the body once decoded, and its
// request message before the answer is encoded.
constexpr size_t kLargeBody = size_t{64} * 1024;

// Writes an answer to a connection that may have gone (the header block, then
// the content, with no other answer's bytes between them).
void sendResponse(const HttpConnectionHandlerWeakPtr& connection, const HttpResponsePtr& response) {
  if (std::shared_ptr<HttpConnectionHandler> handler = connection.lock()) {
    handler->sendAnswer(response.get(), false);
  }
}

// Sets the answer's Rpc-Id as "%d" writes it: ids above 2^31 - 1 go out
// negative, and readers keep the low 32 bits. Formatted here rather than by
// setHeaderF, whose printf cost more than the rest of the header block.
void setCallId(HttpResponse* response, uint32_t id) {
  char digits[12];
  const char* end = std::to_chars(digits, digits + sizeof(digits), static_cast<int>(id)).ptr;
  // Short enough for the string's own buffer: no allocation.
  response->setHeader(RPCChannel::kHeaderId, std::string(digits, end - digits));
}

// Writes the failure form of an RPC answer. Error texts travel in a header
// line, so CR and LF become blanks: no service text can add header lines.
void sendRPCError(const HttpConnectionHandlerWeakPtr& connection, const HttpResponsePtr& response,
                  uint32_t id, const std::string& error_text) {
  std::string text = error_text;
  for (char& c : text) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  setCallId(response.get(), id);
  response->setHeader(RPCChannel::kHeaderFailed, "1");
  response->setHeader(RPCChannel::kHeaderError, text);
  sendResponse(connection, response);
}

std::string typeUrl(const google::protobuf::Message& message) {
  return "/" + message.GetDescriptor()->full_name();
}

// The connection was owed this call's answer: settled on the event thread,
// after the answer's bytes, which from another thread are handed over through
// the event thread's queue that this follows.
void settleAnswer(const HttpConnectionHandlerWeakPtr& connection) {
  if (!isEventThread()) {
    defer([connection] { settleAnswer(connection); });
    return;
  }
  if (std::shared_ptr<HttpConnectionHandler> handler = connection.lock()) handler->answerSettled();
}

// Owns a record until it is given back, settling the answer it owed.
struct GiveBack {
  void operator()(HttpServerImpl::RPCInfo* record) const {
    // Before its controller is reused or freed.
    if (record->ticket) record->ticket->finish();
    if (record->owes_answer) settleAnswer(record->connection);
    const bool very_large = record->very_large;
    // A large call's messages keep their buffers: not worth keeping.
    if (record->large) record->reusable = false;
    CallRecordCache::give(record);
    if (very_large) memory_policy::releaseFreeMemory();
  }
};
using RecordPtr = std::unique_ptr<HttpServerImpl::RPCInfo, GiveBack>;

// The bound call of an RPC's completion closure: hands the record to RPCDone,
// or frees it when RPCDone never runs because the server was gone by the time
// the service completed the call.
class RPCCompletion {
 public:
  RPCCompletion(HttpServerImpl* impl, HttpServerImpl::RPCInfo* info) : impl_(impl), info_(info) {}

  void operator()() { impl_->RPCDone(info_.release()); }

 private:
  HttpServerImpl* impl_;
  RecordPtr info_;
};

}  // namespace

void HttpServerImpl::handleRPCs(const HttpRequestPtr& request, const HttpResponsePtr& response,
                                HttpConnectionHandlerWeakPtr connection) {
  static const std::string* const kMissing = new std::string();
  auto header = [&request](const std::string& name) -> const std::string& {
    auto it = request->headers.find(name);
    return it == request->headers.end() ? *kMissing : it->second;
  };
  const std::string& service_name = header(RPCChannel::kHeaderService);
  const std::string& method_name = header(RPCChannel::kHeaderMethod);
  const uint32_t id = readCallNumber(header(RPCChannel::kHeaderId));
  // Odd as it reads, this text is part of the logging contract.
  VANTU_LOG(5, kLogger, kSourceFile)
      << "This is a RPC!!! " << service_name << " " << method_name << " " << id;

  HttpServerObserver* observer = this->observer();
  const Time started = observer != nullptr ? Time::now() : Time();
  auto refuseCall = [&](const char* error_text, HttpServerObserver::RpcOutcome outcome) {
    sendRPCError(connection, response, id, error_text);
    if (observer != nullptr) {
      observer->rpcFinished(service_name, method_name, outcome, Time::now() - started);
    }
  };
  std::shared_ptr<google::protobuf::Service> service;
  {
    MutexLock lock(mutex_);
    service = findPtrOrNull(services_, service_name);
  }
  if (!service) {
    refuseCall("Service not found.", HttpServerObserver::RpcOutcome::kServiceNotFound);
    return;
  }
  const google::protobuf::MethodDescriptor* method =
      service->GetDescriptor()->FindMethodByName(method_name);
  if (method == nullptr) {
    refuseCall("Method not found.", HttpServerObserver::RpcOutcome::kMethodNotFound);
    return;
  }

  RecordPtr info(CallRecordCache::take(service.get(), method));
  if (header(RPCChannel::kHeaderContentType) == "application/json") {
    info->format = RPCInfo::kJson;
  }
  bool decoded;
  if (info->format == RPCInfo::kJson) {
    const std::string body = request->body;
    VANTU_LOG(6, kLogger, kSourceFile) << "JSON request " << body;
    std::string bytes;
    decoded = google::protobuf::util::JsonToBinaryString(type_resolver_.get(),
                                                         typeUrl(*info->request), body, &bytes)
                  .ok() &&
              info->request->ParseFromString(bytes);
  } else {
    decoded = info->request->ParseFromString(request->body);
  }
  if (!decoded) {
    refuseCall("Can't parse request.", HttpServerObserver::RpcOutcome::kBadRequest);
    return;
  }
  // The message holds what the body held: a large body goes now rather than
  // after the call, so that a call in progress keeps one copy of its request.
  if (request->body.size() > kLargeBody) {
    info->large = true;
    info->very_large = memory_policy::isLargeRequest(0, request->body.size());
    std::string().swap(request->body);
  }
  info->http_response = response;
  info->id = id;
  info->connection = connection;
  info->controller->setPeer(sharedPeerOf(*request, connection));
  info->method = method;
  info->started = started;
  const std::string& timeout = header(RPCChannel::kHeaderTimeout);
  if (!timeout.empty()) info->controller->setDeadline(deadlineFromTimeout(timeout, Time::now()));
  if (observer != nullptr) {
    info->observed = true;
    observer->rpcStarted(service_name, method_name);
  }
  VANTU_LOG(6, kLogger, kSourceFile) << "Calling method. Request=" << info->request->DebugString();

  // One-shot and weak on this object: a completion that comes after the server
  // is gone sends nothing and frees the record.
  std::shared_ptr<HttpServerImpl> self(weak_this_);
  if (std::shared_ptr<HttpConnectionHandler> handler = connection.lock()) {
    handler->oweAnswer();
    info->owes_answer = true;
    if (canceller_) {
      info->ticket =
          canceller_->watch(info->controller.get(), info->controller->deadline(), handler.get());
    }
  }
  RPCInfo* record = info.release();
  google::protobuf::Closure* done =
      newClosure(makeWeakFunction(weak_this_, RPCCompletion(this, record)), true);
  service->CallMethod(method, record->controller.get(), record->request.get(),
                      record->response.get(), done);
}

void HttpServerImpl::RPCDone(RPCInfo* info) {
  RecordPtr owned(info);
  const bool failed = info->controller->Failed();
  HttpServerObserver* observer = this->observer();
  if (observer != nullptr && info->observed) {
    observer->rpcFinished(
        info->method->service()->full_name(), info->method->name(),
        failed ? HttpServerObserver::RpcOutcome::kFailed : HttpServerObserver::RpcOutcome::kOk,
        Time::now() - info->started);
  }
  if (failed) {
    sendRPCError(info->connection, info->http_response, info->id, info->controller->ErrorText());
    return;
  }
  std::vector<char>& content = info->http_response->content;
  if (info->format == RPCInfo::kJson) {
    std::string body;
    info->http_response->setHeader(RPCChannel::kHeaderContentType, "application/json");
    // The conversion's status is not examined: a message the process itself
    // built always converts, and whatever text it left is sent.
    (void)google::protobuf::util::BinaryToJsonString(type_resolver_.get(), typeUrl(*info->response),
                                                     info->response->SerializeAsString(), &body,
                                                     json_options_);
    VANTU_LOG(6, kLogger, kSourceFile) << info->response->DebugString() << " json:" << body;
    content.insert(content.end(), body.begin(), body.end());
  } else {
    // The service is done with the request: a large one goes before the
    // answer's bytes are made.
    if (info->large) info->request.reset();
    // The wire format goes straight into the answer's content, uncopied.
    const size_t at = content.size();
    content.resize(at + info->response->ByteSizeLong());
    info->response->SerializeWithCachedSizesToArray(
        reinterpret_cast<uint8_t*>(content.data() + at));
  }
  setCallId(info->http_response.get(), info->id);
  info->http_response->setHeader(RPCChannel::kHeaderFailed, "0");
  sendResponse(info->connection, info->http_response);
}

}  // namespace relay
}  // namespace vantu
