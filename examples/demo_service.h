#ifndef EXAMPLES_DEMO_SERVICE_H_
#define EXAMPLES_DEMO_SERVICE_H_

#include "demo.pb.h"

namespace demo {

// demo.EchoService: Echo answers at once on the calling (event) thread; Delay
// answers after delay_ms from a timer on the event thread (at most an hour),
// or, when the server cancels the call because its caller gave up, stops the
// timer and fails the call with "Canceled" at once; Fail fails the call with
// the requested text. Nothing here throws out of a call. Safe to call from
// any thread.
class EchoServiceImpl : public EchoService {
 public:
  void Echo(google::protobuf::RpcController* controller, const EchoRequest* request,
            EchoReply* response, google::protobuf::Closure* done) override;
  void Delay(google::protobuf::RpcController* controller, const DelayRequest* request,
             EchoReply* response, google::protobuf::Closure* done) override;
  void Fail(google::protobuf::RpcController* controller, const FailRequest* request,
            EchoReply* response, google::protobuf::Closure* done) override;
};

}  // namespace demo

#endif  // EXAMPLES_DEMO_SERVICE_H_
