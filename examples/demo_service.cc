#include "demo_service.h"

#include <algorithm>
#include <exception>
#include <string>

#include "common/event_thread.h"

namespace demo {
namespace {

// A Delay longer than this is cut to it: no call holds its record for ever.
constexpr int kLongestDelayMs = 60 * 60 * 1000;

}  // namespace

void EchoServiceImpl::Echo(google::protobuf::RpcController*, const EchoRequest* request,
                           EchoReply* response, google::protobuf::Closure* done) {
  response->set_text(request->text());
  done->Run();
}

void EchoServiceImpl::Delay(google::protobuf::RpcController* controller,
                            const DelayRequest* request, EchoReply* response,
                            google::protobuf::Closure* done) {
  // The request, response and controller stay valid until done runs. One
  // timer on the event thread per call, not a thread: ten thousand pending
  // calls cost ten thousand small timers.
  try {
    const int delay_ms = std::min(std::max(request->delay_ms(), 0), kLongestDelayMs);
    const std::string text = request->text();
    vantu::scheduleDeferred(
        [text, response, done] {
          response->set_text(text);
          done->Run();
        },
        vantu::Duration::milliseconds(delay_ms));
  } catch (const std::exception& e) {
    // Out of memory, most likely: the call fails instead of the process.
    controller->SetFailed(std::string("Delay could not be scheduled: ") + e.what());
    done->Run();
  }
}

void EchoServiceImpl::Fail(google::protobuf::RpcController* controller, const FailRequest* request,
                           EchoReply*, google::protobuf::Closure* done) {
  controller->SetFailed(request->error());
  done->Run();
}

}  // namespace demo
