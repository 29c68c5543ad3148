#ifndef RELAY_CALL_RECORD_CACHE_H_
#define RELAY_CALL_RECORD_CACHE_H_

#include <cstddef>

#include "relay/http_server.h"

namespace google {
namespace protobuf {
class MethodDescriptor;
class Service;
}  // namespace protobuf
}  // namespace google

namespace vantu {
namespace relay {

// Where the server's RPC call records (HttpServerImpl::RPCInfo) come from and
// go back to. Records the event thread is done with are kept with their
// controller and their two messages, so that a method called again finds its
// messages there, to be cleared instead of made anew.
//
// A kept record carries exactly those three (and the prototypes they were made
// from) to its next call; every other field is made afresh by RPCInfo's own
// constructor, so that a field added to the record can never carry one call's
// value into the next. Only records whose messages are of generated classes
// are kept (those live as long as the program; a dynamic factory's may not),
// and at most memory_policy::kMaxCachedCallRecords of them.
//
// The cache is the event thread's own; take() and give() may be called from
// any thread, and records given back on other threads are deleted.
class CallRecordCache {
 public:
  CallRecordCache() = delete;

  // A record for a call of `method` on `service`: its controller fresh, its
  // messages empty and of the method's types, every other field as a new
  // RPCInfo has it. The caller owns it until it gives it back.
  static HttpServerImpl::RPCInfo* take(google::protobuf::Service* service,
                                       const google::protobuf::MethodDescriptor* method);
  // Takes back a record that take() made: keeps it, or deletes it.
  static void give(HttpServerImpl::RPCInfo* record);

  // For tests: the records kept now. Event thread.
  static size_t keptForTesting();
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_CALL_RECORD_CACHE_H_
