#include "demo_service.h"

#include <chrono>
#include <thread>

namespace demo {

void EchoServiceImpl::Echo(google::protobuf::RpcController*, const EchoRequest* request,
                           EchoReply* response, google::protobuf::Closure* done) {
  response->set_text(request->text());
  done->Run();
}

void EchoServiceImpl::Delay(google::protobuf::RpcController*, const DelayRequest* request,
                            EchoReply* response, google::protobuf::Closure* done) {
  // The request, response and controller stay valid until done runs.
  const std::string text = request->text();
  const int delay_ms = request->delay_ms();
  std::thread([text, delay_ms, response, done] {
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    response->set_text(text);
    done->Run();
  }).detach();
}

void EchoServiceImpl::Fail(google::protobuf::RpcController* controller, const FailRequest* request,
                           EchoReply*, google::protobuf::Closure* done) {
  controller->SetFailed(request->error());
  done->Run();
}

}  // namespace demo
