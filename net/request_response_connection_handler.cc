#include "net/request_response_connection_handler.h"

#include "common/event_thread.h"

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

void RequestResponseConnectionHandler::abort() { source_.abort(); }

void RequestResponseConnectionHandler::notifyOutputShutdown() { source_.close(); }

void RequestResponseConnectionHandler::notifyInputShutdown(std::string*) {}

bool RequestResponseConnectionHandler::holdOpenAfterInputEnd() { return false; }

void RequestResponseConnectionHandler::notifyClosed() {}

void RequestResponseConnectionHandler::onReadable(std::string* data) { notifyIncomingData(data); }

bool RequestResponseConnectionHandler::onInputEnd(std::string* data) {
  notifyInputShutdown(data);
  return holdOpenAfterInputEnd();
}

void RequestResponseConnectionHandler::onOutputEnd() { notifyOutputShutdown(); }

void RequestResponseConnectionHandler::onClosed() { notifyClosed(); }

}  // namespace relay
}  // namespace vantu
