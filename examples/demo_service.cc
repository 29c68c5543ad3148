#include "demo_service.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <string>

#include "common/closure.h"
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

namespace {

// One Delay call between its start and its answer: answered once, by its
// timer or by a cancel, whichever comes first. Both run on the event thread.
struct DelayedCall {
  google::protobuf::RpcController* controller;
  demo::EchoReply* response;
  google::protobuf::Closure* done;
  std::string text;
  vantu::TimerHandle timer;
  bool answered = false;

  void answer() {
    if (answered) return;
    answered = true;
    response->set_text(text);
    done->Run();
  }
  // The caller gave up: the timer stops and the call ends now, failed.
  void cancel() {
    if (answered) return;
    answered = true;
    timer.cancel();
    controller->SetFailed("Canceled");
    done->Run();
  }
};

}  // namespace

void EchoServiceImpl::Delay(google::protobuf::RpcController* controller,
                            const DelayRequest* request, EchoReply* response,
                            google::protobuf::Closure* done) {
  // The request, response and controller stay valid until done runs. One
  // timer on the event thread per call, not a thread: ten thousand pending
  // calls cost ten thousand small timers.
  try {
    const int delay_ms = std::min(std::max(request->delay_ms(), 0), kLongestDelayMs);
    auto call = std::make_shared<DelayedCall>();
    call->controller = controller;
    call->response = response;
    call->done = done;
    call->text = request->text();
    // A server that cancels abandoned calls runs this on the event thread;
    // the controller deletes it unrun once the call is answered.
    controller->NotifyOnCancel(vantu::relay::newClosure([call] { call->cancel(); }, true));
    if (!call->answered) {
      call->timer = vantu::scheduleDeferred([call] { call->answer(); },
                                            vantu::Duration::milliseconds(delay_ms));
    }
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
