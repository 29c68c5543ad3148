#include "relay/reflection.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

#include <set>
#include <string>
#include <vector>

namespace vantu {
namespace relay {
namespace {

// The pools a symbol may live in: those of the registered services (a service
// built from descriptors loaded at run time brings its own pool), then the
// generated one, each once.
std::vector<const google::protobuf::DescriptorPool*> poolsOf(
    const std::vector<const google::protobuf::ServiceDescriptor*>& services) {
  std::vector<const google::protobuf::DescriptorPool*> pools;
  auto add = [&pools](const google::protobuf::DescriptorPool* pool) {
    for (const google::protobuf::DescriptorPool* known : pools) {
      if (known == pool) return;
    }
    pools.push_back(pool);
  };
  for (const google::protobuf::ServiceDescriptor* service : services) add(service->file()->pool());
  add(google::protobuf::DescriptorPool::generated_pool());
  return pools;
}

// Appends `file` after everything it imports, each file once.
void addWithDependencies(const google::protobuf::FileDescriptor* file, std::set<std::string>* added,
                         google::protobuf::FileDescriptorSet* out) {
  if (!added->insert(file->name()).second) return;
  for (int i = 0; i < file->dependency_count(); ++i) {
    addWithDependencies(file->dependency(i), added, out);
  }
  file->CopyTo(out->add_file());
}

// The symbol as it may appear in an error text, which travels in a header
// line: no control bytes, and not more than a line's worth.
std::string printable(const std::string& symbol) {
  std::string text = symbol.substr(0, 256);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return symbol.size() > text.size() ? text + "..." : text;
}

}  // namespace

ReflectionService::ReflectionService(std::weak_ptr<HttpServer> server)
    : server_(std::move(server)) {}

void ReflectionService::ListServices(google::protobuf::RpcController* controller,
                                     const ListServicesRequest* /*request*/,
                                     ListServicesReply* response, google::protobuf::Closure* done) {
  std::shared_ptr<HttpServer> server = server_.lock();
  if (!server) {
    controller->SetFailed("The server is shutting down.");
  } else {
    // serviceDescriptors() is in name order already.
    for (const google::protobuf::ServiceDescriptor* service : server->serviceDescriptors()) {
      response->add_service(service->full_name());
    }
  }
  done->Run();
}

void ReflectionService::FileContainingSymbol(google::protobuf::RpcController* controller,
                                             const FileContainingSymbolRequest* request,
                                             google::protobuf::FileDescriptorSet* response,
                                             google::protobuf::Closure* done) {
  std::shared_ptr<HttpServer> server = server_.lock();
  if (!server) {
    controller->SetFailed("The server is shutting down.");
    done->Run();
    return;
  }
  std::string symbol = request->symbol();
  if (!symbol.empty() && symbol[0] == '.') symbol.erase(0, 1);
  const google::protobuf::FileDescriptor* file = nullptr;
  for (const google::protobuf::DescriptorPool* pool : poolsOf(server->serviceDescriptors())) {
    file = pool->FindFileContainingSymbol(symbol);
    if (file != nullptr) break;
  }
  if (file == nullptr) {
    controller->SetFailed("Symbol not found: " + printable(symbol));
  } else {
    std::set<std::string> added;
    addWithDependencies(file, &added, response);
  }
  done->Run();
}

void registerReflectionService(const std::shared_ptr<HttpServer>& server) {
  server->registerRPCService(std::make_shared<ReflectionService>(server));
}

}  // namespace relay
}  // namespace vantu
