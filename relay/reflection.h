#ifndef RELAY_REFLECTION_H_
#define RELAY_REFLECTION_H_

#include <memory>

#include "relay/http_server.h"
#include "relay/reflection.pb.h"

namespace vantu {
namespace relay {

// The reflection service, vantu.relay.Reflection: tells a client which services
// a server hosts and hands it the descriptors of their files, so that a client
// built without the server's .proto files (relay_call, for one) can call any of
// them. It is an ordinary protobuf service carried by the same RPC protocol,
// binary or JSON.
//
// Holds its server weakly (the server owns the service) and answers for the
// services registered at the time of each call, itself included. Symbols are
// looked up in the descriptor pools of the registered services and in the
// process's generated pool. Answers synchronously, on the thread that calls it
// (the event thread when the server calls it); safe from any thread.
class ReflectionService : public Reflection {
 public:
  explicit ReflectionService(std::weak_ptr<HttpServer> server);
  ReflectionService(const ReflectionService&) = delete;
  ReflectionService& operator=(const ReflectionService&) = delete;

  // Reflection
  void ListServices(google::protobuf::RpcController* controller, const ListServicesRequest* request,
                    ListServicesReply* response, google::protobuf::Closure* done) override;
  void FileContainingSymbol(google::protobuf::RpcController* controller,
                            const FileContainingSymbolRequest* request,
                            google::protobuf::FileDescriptorSet* response,
                            google::protobuf::Closure* done) override;

 private:
  // Constant after construction.
  const std::weak_ptr<HttpServer> server_;
};

// Registers a ReflectionService for `server` on `server`: the one call an
// application makes to let clients discover its services. Any thread.
void registerReflectionService(const std::shared_ptr<HttpServer>& server);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_REFLECTION_H_
