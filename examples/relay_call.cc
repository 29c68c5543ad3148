// Calls one method of a service compiled into this binary over RPC-over-HTTP
// and prints the reply as JSON.
//
//   relay_call [--timeout-ms N] HOST:PORT package.Service.Method '{"json":"request"}'
//
// Exits 0 after printing the reply; prints the error text and exits 1 when the
// call fails or times out, 2 on bad usage.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "common/event_thread.h"
#include "demo.pb.h"  // links the demo services into the descriptor pool
#include "relay/rpc.h"

namespace {

int usage() {
  fprintf(stderr,
          "usage: relay_call [--timeout-ms N] HOST:PORT package.Service.Method 'JSON request'\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  demo::EchoRequest link_demo_descriptors;
  (void)link_demo_descriptors;

  int timeout_ms = 10000;
  int arg = 1;
  if (arg + 1 < argc && std::string(argv[arg]) == "--timeout-ms") {
    timeout_ms = atoi(argv[arg + 1]);
    arg += 2;
  }
  if (argc - arg != 3) return usage();
  const std::string host_port = argv[arg];
  const std::string full_method = argv[arg + 1];
  const std::string json = argv[arg + 2];

  const size_t colon = host_port.rfind(':');
  const size_t dot = full_method.rfind('.');
  if (colon == std::string::npos || dot == std::string::npos) return usage();
  std::string host = host_port.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  const int port = atoi(host_port.c_str() + colon + 1);

  const google::protobuf::ServiceDescriptor* service =
      google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(
          full_method.substr(0, dot));
  const google::protobuf::MethodDescriptor* method =
      service != nullptr ? service->FindMethodByName(full_method.substr(dot + 1)) : nullptr;
  if (method == nullptr) {
    fprintf(stderr, "relay_call: no method %s in this binary\n", full_method.c_str());
    return 2;
  }
  google::protobuf::MessageFactory* factory = google::protobuf::MessageFactory::generated_factory();
  std::unique_ptr<google::protobuf::Message> request(
      factory->GetPrototype(method->input_type())->New());
  std::unique_ptr<google::protobuf::Message> response(
      factory->GetPrototype(method->output_type())->New());
  if (!google::protobuf::util::JsonStringToMessage(json, request.get()).ok()) {
    fprintf(stderr, "relay_call: the request is not a %s in JSON\n",
            method->input_type()->full_name().c_str());
    return 2;
  }

  vantu::relay::RPCChannelPtr channel =
      vantu::relay::RPCChannel::create(vantu::SocketAddress(host, static_cast<uint16_t>(port)));
  if (!channel) {
    fprintf(stderr, "relay_call: cannot connect to %s\n", host_port.c_str());
    return 1;
  }
  vantu::relay::RPC controller;
  channel->CallMethod(method, &controller, request.get(), response.get(), nullptr);
  controller.timedWaitRelative(vantu::Duration::milliseconds(timeout_ms));
  const bool failed = controller.Failed();
  const std::string error = controller.ErrorText();
  channel.reset();
  vantu::waitForDeferredWork();
  if (failed) {
    fprintf(stderr, "%s\n", error.empty() ? "call failed" : error.c_str());
    return 1;
  }
  std::string out;
  google::protobuf::util::MessageToJsonString(*response, &out);
  printf("%s\n", out.c_str());
  return 0;
}
