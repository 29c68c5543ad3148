#ifndef EXAMPLES_RELAY_CALL_CLIENT_H_
#define EXAMPLES_RELAY_CALL_CLIENT_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstdint>
#include <string>

#include "common/socket_address.h"
#include "common/time.h"
#include "relay/rpc.h"
#include "relay_call_args.h"

namespace relay_call {

// Makes relay_call's calls to one server, all before one deadline: the
// reflection queries and the call itself. Binary calls go through an
// RPCChannel, as any client's do, over one connection made on first use; JSON
// calls over a plain socket of their own, since RPCChannel never sends JSON.
//
// Owned by main; used from one thread.
class Caller {
 public:
  // `host` is an IP literal or a name to look up.
  Caller(std::string host, uint16_t port, int timeout_ms);
  ~Caller();
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  // Calls `method` with `request` and fills `response`, a message of the
  // method's output type. kExitOk, or kExitCallFailed with the reason (the
  // server's error text, for one) in *error.
  ExitCode call(Wire wire, const google::protobuf::MethodDescriptor& method,
                const google::protobuf::Message& request, google::protobuf::Message* response,
                std::string* error);

 private:
  ExitCode callBinary(const google::protobuf::MethodDescriptor& method,
                      const google::protobuf::Message& request, google::protobuf::Message* response,
                      std::string* error);
  ExitCode callJson(const google::protobuf::MethodDescriptor& method,
                    const google::protobuf::Message& request, google::protobuf::Message* response,
                    std::string* error);
  // Looks the host up once; false with the reason.
  bool resolve(std::string* error);
  std::string timeoutText() const;

  // Constant after construction.
  const std::string host_;
  const uint16_t port_;
  const int timeout_ms_;
  const vantu::Time deadline_;

  vantu::SocketAddress address_;  // valid once resolved
  vantu::relay::RPCChannelPtr channel_;
  uint32_t next_json_id_ = 0;
};

}  // namespace relay_call

#endif  // EXAMPLES_RELAY_CALL_CLIENT_H_
