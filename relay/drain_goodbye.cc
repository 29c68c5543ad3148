#include "relay/drain_goodbye.h"

#include "relay/rpc.h"

namespace vantu {
namespace relay {

constexpr Duration DrainGoodbye::kQuietPeriod;

void DrainGoodbye::begin(Time now) {
  last_heard_ = now;
  active_.store(true, std::memory_order_release);
}

void DrainGoodbye::refuse(const HttpRequest& request, HttpResponse* response) {
  auto id = request.headers.find(RPCChannel::kHeaderId);
  if (request.headers.count(RPCChannel::kHeaderService) != 0) {
    // The failure form of an RPC answer, and the mark that it was not run.
    response->setHeaderF(RPCChannel::kHeaderId, "%d",
                         readCallNumber(id == request.headers.end() ? "" : id->second));
    response->setHeader(RPCChannel::kHeaderFailed, "1");
    response->setHeader(RPCChannel::kHeaderError, RPCChannel::kErrorDraining);
    response->setHeader(RPCChannel::kHeaderNotRun, "1");
  } else {
    response->status_code = HttpResponse::kServiceUnavailable;
  }
  markClosing(response);
}

void DrainGoodbye::markClosing(HttpResponse* response) {
  response->setHeader("Connection", "close");
}

}  // namespace relay
}  // namespace vantu
