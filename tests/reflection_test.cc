// The reflection service over the wire: what it lists, the files it hands out
// and in which order, and how it refuses what it does not know.
#include "relay/reflection.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include "common/event_thread.h"
#include "relay/rpc.h"
#include "tests/calc_service.h"
#include "tests/loopback_client.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::CalcService;
using vantu::testing::LoopbackClient;
using vantu::testing::TestServiceImpl;

class ReflectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
    ASSERT_TRUE(server_);
    calc_ = CalcService::load();
    ASSERT_TRUE(calc_);
    server_->registerRPCService(std::make_shared<TestServiceImpl>());
    server_->registerRPCService(calc_);
    registerReflectionService(server_);
    channel_ = RPCChannel::create(SocketAddress("127.0.0.1", server_->localAddress().port()));
    ASSERT_TRUE(channel_);
  }

  void TearDown() override {
    channel_.reset();
    server_.reset();
    waitForDeferredWork();
  }

  // The error text, "" on success.
  std::string fileContaining(const std::string& symbol,
                             google::protobuf::FileDescriptorSet* files) {
    Reflection_Stub stub(channel_.get());
    RPC controller;
    FileContainingSymbolRequest request;
    request.set_symbol(symbol);
    stub.FileContainingSymbol(&controller, &request, files, nullptr);
    EXPECT_TRUE(controller.timedWaitRelative(Duration::seconds(30)));
    return controller.Failed() ? controller.ErrorText() : "";
  }

  std::vector<std::string> listServices() {
    Reflection_Stub stub(channel_.get());
    RPC controller;
    ListServicesRequest request;
    ListServicesReply reply;
    stub.ListServices(&controller, &request, &reply, nullptr);
    EXPECT_TRUE(controller.timedWaitRelative(Duration::seconds(30)));
    EXPECT_FALSE(controller.Failed()) << controller.ErrorText();
    return std::vector<std::string>(reply.service().begin(), reply.service().end());
  }

  std::shared_ptr<HttpServer> server_;
  std::shared_ptr<CalcService> calc_;
  RPCChannelPtr channel_;
};

TEST_F(ReflectionTest, ListsTheServicesRegisteredAtEachCall) {
  EXPECT_EQ(listServices(), (std::vector<std::string>{"calc.Calculator", "relaytest.TestService",
                                                      "vantu.relay.Reflection"}));
  // A replacement is still one service; a later registration shows at once.
  server_->registerRPCService(std::make_shared<TestServiceImpl>());
  registerReflectionService(server_);
  EXPECT_EQ(listServices(), (std::vector<std::string>{"calc.Calculator", "relaytest.TestService",
                                                      "vantu.relay.Reflection"}));
}

TEST_F(ReflectionTest, FilesComeAfterTheirDependenciesAndBuildAnewPool) {
  const std::vector<std::string> calc_files = {"calc/units.proto", "calc/calc.proto"};
  const struct {
    const char* symbol;
    std::vector<std::string> files;
  } kCases[] = {
      {"calc.Calculator", calc_files},      // a service of a dynamic pool
      {"calc.Calculator.Add", calc_files},  // a method
      {".calc.Sum", calc_files},            // a message, written with the leading dot
      {"calc.Sum.total", calc_files},       // a field
      {"calc.Unit", {"calc/units.proto"}},  // an enum, in the imported file alone
      {"relaytest.TestService", {"test_services.proto"}},  // the generated pool
      {"vantu.relay.Reflection", {"google/protobuf/descriptor.proto", "relay/reflection.proto"}},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.symbol);
    google::protobuf::FileDescriptorSet files;
    ASSERT_EQ(fileContaining(test.symbol, &files), "");
    std::vector<std::string> names;
    for (const auto& file : files.file()) names.push_back(file.name());
    EXPECT_EQ(names, test.files);

    // In the order given, every file builds: what a client does with them.
    google::protobuf::DescriptorPool pool;
    for (const auto& file : files.file()) ASSERT_NE(pool.BuildFile(file), nullptr) << file.name();
    std::string symbol = test.symbol;
    if (symbol[0] == '.') symbol.erase(0, 1);
    EXPECT_NE(pool.FindFileContainingSymbol(symbol), nullptr);
  }

  // Nothing lost on the way: the file is the one the service was built from.
  google::protobuf::FileDescriptorSet files;
  ASSERT_EQ(fileContaining("calc.Sum", &files), "");
  google::protobuf::FileDescriptorProto original;
  calc_->pool().FindFileByName("calc/calc.proto")->CopyTo(&original);
  EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(files.file(1), original));
}

TEST_F(ReflectionTest, UnknownSymbolFailsTheCallAndNothingElse) {
  google::protobuf::FileDescriptorSet files;
  EXPECT_EQ(fileContaining("calc.Nothing", &files), "Symbol not found: calc.Nothing");
  EXPECT_EQ(files.file_size(), 0);
  EXPECT_EQ(fileContaining("", &files), "Symbol not found: ");
  EXPECT_EQ(fileContaining("calc.Sum.nothing", &files), "Symbol not found: calc.Sum.nothing");
  // The channel is still good for the next call.
  ASSERT_EQ(fileContaining("calc.Unit", &files), "");
  EXPECT_EQ(files.file_size(), 1);
  // The error text travels as a header value: a line break in the symbol must
  // not add a header line of its own.
  LoopbackClient client(server_->localAddress().port());
  ASSERT_TRUE(
      client.write(vantu::testing::rpcRequest("vantu.relay.Reflection", "FileContainingSymbol", "7",
                                              "{\"symbol\":\"a\\r\\nInjected: 1\"}", true)));
  const std::string expected =
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n"
      "Rpc-Error: Symbol not found: a??Injected: 1\r\nRpc-Failed: 1\r\nRpc-Id: 7\r\n\r\n";
  EXPECT_EQ(client.read(expected.size()), expected);
}

TEST(ReflectionServiceTest, FailsOnceItsServerIsGone) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  ReflectionService service(server);
  server.reset();
  waitForDeferredWork();
  struct Done : google::protobuf::Closure {
    void Run() override { ++runs; }
    int runs = 0;
  } done;
  RPC list_controller;
  ListServicesRequest list_request;
  ListServicesReply list_reply;
  service.ListServices(&list_controller, &list_request, &list_reply, &done);
  EXPECT_EQ(list_controller.ErrorText(), "The server is shutting down.");
  RPC file_controller;
  FileContainingSymbolRequest file_request;
  file_request.set_symbol("vantu.relay.Reflection");
  google::protobuf::FileDescriptorSet files;
  service.FileContainingSymbol(&file_controller, &file_request, &files, &done);
  EXPECT_EQ(file_controller.ErrorText(), "The server is shutting down.");
  EXPECT_EQ(files.file_size(), 0);
  EXPECT_EQ(done.runs, 2);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
