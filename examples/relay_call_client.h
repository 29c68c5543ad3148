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

// Makes relay_call's calls to the servers of a target, all before one
// deadline: the reflection queries and the call itself, each of which carries
// that deadline to the server. Binary calls go through an RPCChannel made with
// options, as any client's do, on first use; JSON calls over a plain socket
// of their own to the first server that takes the connection, since
// RPCChannel never sends JSON.
//
// Owned by main; used from one thread.
class Caller {
 public:
  // `address`: a target as RPCChannel::create takes it (see
  // vantu::relay::RPCTarget), already checked by parseArguments.
  // `tls`: how to speak TLS to them, when enabled.
  Caller(std::string address, int timeout_ms,
         vantu::relay::TlsClientOptions tls = vantu::relay::TlsClientOptions());
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
  std::string timeoutText() const;

  // Constant after construction.
  const std::string address_;
  const int timeout_ms_;
  const vantu::Time deadline_;
  const vantu::relay::TlsClientOptions tls_;

  vantu::relay::RPCChannelPtr channel_;
  uint32_t next_json_id_ = 0;
};

}  // namespace relay_call

#endif  // EXAMPLES_RELAY_CALL_CLIENT_H_
