#include "net/request_response_connection_handler.h"

#include "common/event_thread.h"
#include "common/event_thread_check.h"

namespace vantu {
namespace relay {

RequestResponseConnectionHandler::SendGuard::SendGuard(RequestResponseConnectionHandler& handler)
    : mutex_(isEventThread() ? nullptr : &handler.source_.pushMutex()) {
  if (mutex_ != nullptr) mutex_->lock();
}

RequestResponseConnectionHandler::SendGuard::~SendGuard() {
  if (mutex_ != nullptr) mutex_->unlock();
}

RequestResponseConnectionHandler::RequestResponseConnectionHandler(
    unsigned long initial_read_size) {
  sink_.setReader(this);
  sink_.setInitialReservation(initial_read_size);
}

RequestResponseConnectionHandler::~RequestResponseConnectionHandler() = default;

void RequestResponseConnectionHandler::send(const std::string& bytes) { source_.push(bytes); }

void RequestResponseConnectionHandler::send(const char* data, size_t size) {
  source_.push(data, size);
}

void RequestResponseConnectionHandler::shutdown() { source_.close(); }

void RequestResponseConnectionHandler::abort() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/request_response_connection_handler");
  source_.abort();
}

void RequestResponseConnectionHandler::notifyOutputShutdown() { source_.close(); }

void RequestResponseConnectionHandler::notifyInputShutdown(std::string*) {}

bool RequestResponseConnectionHandler::holdOpenAfterInputEnd() { return false; }

void RequestResponseConnectionHandler::notifyClosed() {}

void RequestResponseConnectionHandler::notifyOutputDrained() {}

size_t RequestResponseConnectionHandler::notifyIncomingBytes(const char*, size_t) {
  return kIncomingInString;
}

void RequestResponseConnectionHandler::onReadable(std::string* data) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/request_response_connection_handler");
  notifyIncomingData(data);
}

size_t RequestResponseConnectionHandler::onReadableBytes(const char* data, size_t size) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/request_response_connection_handler");
  return notifyIncomingBytes(data, size);
}

bool RequestResponseConnectionHandler::onInputEnd(std::string* data) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/request_response_connection_handler");
  notifyInputShutdown(data);
  return holdOpenAfterInputEnd();
}

void RequestResponseConnectionHandler::onOutputEnd() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/request_response_connection_handler");
  notifyOutputShutdown();
}

void RequestResponseConnectionHandler::onClosed() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/request_response_connection_handler");
  notifyClosed();
}

void RequestResponseConnectionHandler::onOutputDrained() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/request_response_connection_handler");
  notifyOutputDrained();
}

}  // namespace relay
}  // namespace vantu
