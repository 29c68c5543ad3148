// relay_call end to end: the real binary, run as a process of its own, against
// servers in this process. calc.Calculator exists only as .proto files that
// this test compiles at run time, and relaytest.TestService only in this
// test's generated code: relay_call is built with neither.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/event_thread.h"
#include "relay/http_server.h"
#include "relay/reflection.h"
#include "tests/calc_service.h"
#include "tests/loopback_client.h"
#include "tests/shell_output.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::CalcService;
using vantu::testing::TestServiceImpl;

using Outcome = vantu::testing::ProcessOutcome;

class RelayCallTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    calc_ = new std::shared_ptr<CalcService>(CalcService::load());
    ASSERT_TRUE(*calc_);
    const std::shared_ptr<CalcService>& calc = *calc_;
    // With reflection: the calculator, the test service and reflection itself.
    with_reflection_ =
        new std::shared_ptr<HttpServer>(HttpServer::create(SocketAddress("127.0.0.1", 0), 16));
    ASSERT_TRUE(*with_reflection_);
    (*with_reflection_)->registerRPCService(calc);
    (*with_reflection_)->registerRPCService(std::make_shared<TestServiceImpl>());
    registerReflectionService(*with_reflection_);
    // Without: only --proto can tell relay_call what it hosts.
    without_reflection_ =
        new std::shared_ptr<HttpServer>(HttpServer::create(SocketAddress("127.0.0.1", 0), 16));
    ASSERT_TRUE(*without_reflection_);
    (*without_reflection_)->registerRPCService(calc);
    closed_ = new vantu::testing::BoundPort();  // refuses connections: never listening
  }

  static void TearDownTestSuite() {
    delete with_reflection_;
    delete without_reflection_;
    waitForDeferredWork();
    delete closed_;
    delete calc_;  // the last reference: answers what it still holds, to servers long gone
  }

  // "@A", "@B", "@CLOSED" and "@DATA" in `args` stand for the server with
  // reflection, the one without, the refusing port and the .proto directory.
  static Outcome relayCall(std::vector<std::string> args, const std::string& input = "") {
    const std::string a = "127.0.0.1:" + std::to_string((*with_reflection_)->localAddress().port());
    const std::string b =
        "127.0.0.1:" + std::to_string((*without_reflection_)->localAddress().port());
    for (std::string& arg : args) {
      for (const auto& [name, value] : std::vector<std::pair<std::string, std::string>>{
               {"@A", a},
               {"@B", b},
               {"@CLOSED", "127.0.0.1:" + std::to_string(closed_->port())},
               {"@DATA", HSL_SOURCE_DIR "/tests/data/relay_call"}}) {
        const size_t at = arg.find(name);
        if (at != std::string::npos) arg.replace(at, name.size(), value);
      }
    }
    args.insert(args.begin(), RELAY_CALL_PATH);
    return vantu::testing::runProcess(args, input);
  }

  static std::string joined(const std::vector<std::string>& args) {
    std::string line;
    for (const std::string& arg : args) line += arg + " ";
    return line;
  }

  static inline std::shared_ptr<CalcService>* calc_ = nullptr;
  static inline std::shared_ptr<HttpServer>* with_reflection_ = nullptr;
  static inline std::shared_ptr<HttpServer>* without_reflection_ = nullptr;
  static inline vantu::testing::BoundPort* closed_ = nullptr;
};

const char kCalculator[] =
    "// calc/calc.proto\n"
    "service Calculator {\n"
    "  rpc Add(calc.AddRequest) returns (calc.Sum);\n"
    "  rpc Fail(calc.FailRequest) returns (calc.Sum);\n"
    "  rpc Hold(calc.AddRequest) returns (calc.Sum);\n"
    "}\n";

TEST_F(RelayCallTest, SucceedsWithWhatItWasAskedFor) {
  const struct {
    std::vector<std::string> args;
    std::string input;
    std::string out;
  } kCases[] = {
      {{"@A", "list"}, "", "calc.Calculator\nrelaytest.TestService\nvantu.relay.Reflection\n"},
      {{"@A", "describe", "calc.Calculator"}, "", kCalculator},
      // Names as users write them, and protobuf's fully-qualified spelling
      // pasted back.
      {{"@A", "describe", "calc.Calculator.Fail"},
       "",
       "// calc/calc.proto\nrpc Fail(calc.FailRequest) returns (calc.Sum);\n"},
      {{"@A", "describe", ".calc.Sum"},
       "",
       "// calc/calc.proto\nmessage Sum {\n  int64 total = 1;\n  calc.Unit unit = 2;\n}\n"},
      {{"--proto", "calc/calc.proto", "-I", "@DATA", "@B", "describe", ".calc.Sum"},
       "",
       "// calc/calc.proto\nmessage Sum {\n  int64 total = 1;\n  calc.Unit unit = 2;\n}\n"},
      {{"@A", ".relaytest.TestService.Echo", "{\"text\":\"dot\"}"}, "", "{\"text\":\"dot\"}\n"},
      // Defined in the imported file: the dependency came along.
      {{"@A", "describe", "calc.Unit"},
       "",
       "// calc/units.proto\nenum Unit {\n  UNIT_NONE = 0;\n  METRE = 1;\n  SECOND = 2;\n}\n"},
      // Calls through reflection, binary by default (json: see the targets test).
      {{"@A", "calc.Calculator.Add", "{\"values\":[\"40\",2],\"unit\":\"METRE\"}"},
       "",
       "{\"total\":\"42\",\"unit\":\"METRE\"}\n"},
      {{"@A", "calc.Calculator.Add", "-"}, "{\"values\": [1, 2, 3]}\n", "{\"total\":\"6\"}\n"},
      // The server has no reflection: the files say it all.
      {{"--proto", "calc/calc.proto", "-I", "@DATA", "@B", "calc.Calculator.Add",
        "{\"values\":[5,-7]}"},
       "",
       "{\"total\":\"-2\"}\n"},
      {{"--proto", "@DATA/calc/calc.proto", "-I@DATA", "@B", "list"}, "", "calc.Calculator\n"},
      // Without -I, a file's own directory is an import path.
      {{"--proto", "@DATA/calc/units.proto", "@B", "describe", "calc.Unit"},
       "",
       "// units.proto\nenum Unit {\n  UNIT_NONE = 0;\n  METRE = 1;\n  SECOND = 2;\n}\n"},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(joined(test.args));
    const Outcome run = relayCall(test.args, test.input);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, test.out);
    EXPECT_EQ(run.err, "");
  }
}

TEST_F(RelayCallTest, ExitStatusAndOneLineSayWhatWentWrong) {
  const struct {
    std::vector<std::string> args;
    int exit_code;
    const char* reason;
  } kCases[] = {
      // 1: the call failed.
      {{"@A", "calc.Calculator.Fail", "{\"error\":\"overflow\"}"}, 1, "relay_call: overflow\n"},
      {{"@CLOSED", "list"}, 1, "cannot connect"},
      {{"@B", "list"}, 1, "no reflection service"},
      {{"@B", "calc.Calculator.Add", "{}"}, 1, "no reflection service"},
      {{"--timeout-ms", "200", "@A", "calc.Calculator.Hold", "{}"}, 1, "no answer within 200 ms"},
      // The server's JSON mapping knows only the types compiled into it.
      {{"--wire", "json", "@A", "calc.Calculator.Add", "{}"}, 1, "Can't parse request."},
      {{"--proto", "calc/calc.proto", "-I", "@DATA", "@A", "relaytest.TestService.Echo", "{}"},
       2,
       "no relaytest.TestService in the --proto files"},
      // 2: bad usage or an unknown method.
      {{"@A", "calc.Calculator.Divide", "{}"}, 2, "calc.Calculator has no method Divide"},
      {{"@A", "calc.Abacus.Add", "{}"}, 2, "the server defines no calc.Abacus"},
      // The same mistake when the files define what the server does not host.
      {{"--proto", "test_services.proto", "-I", HSL_SOURCE_DIR "/tests", "@B",
        "relaytest.TestService.Echo", "{}"},
       2,
       "the server hosts no relaytest.TestService"},
      {{"@A", "describe", ".calc.Nothing"}, 2, "the server defines no calc.Nothing"},
      {{"@A", "calc.Sum.Add", "{}"}, 2, "calc.Sum is not a service"},
      {{"@A", "describe", "calc.Nothing"}, 2, "the server defines no calc.Nothing"},
      {{"@A", "calc.Calculator.Add", "{\"values\":\"x\"}"}, 2, "is not a calc.AddRequest in JSON"},
      {{"--proto", "calc/missing.proto", "-I", "@DATA", "@B", "list"}, 2, "missing.proto"},
      {{"--proto", "broken.proto", "-I", "@DATA", "@B", "list"}, 2, "broken.proto:5:"},
      {{"@A"}, 2, "missing what to do"},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(joined(test.args));
    const Outcome run = relayCall(test.args);
    EXPECT_EQ(run.exit_code, test.exit_code) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find(test.reason), std::string::npos) << run.err;
    EXPECT_EQ(run.err.compare(0, 12, "relay_call: "), 0) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  }
}

TEST_F(RelayCallTest, TakesEveryTargetAChannelTakesAndHelp) {
  const std::string port = std::to_string((*with_reflection_)->localAddress().port());
  // A server that refuses first: the next one answers. Names are looked up
  // (localhost may name ::1 first, where nothing listens).
  for (const std::string& target :
       std::vector<std::string>{"@CLOSED,@A", "localhost:" + port, "dns:///localhost:" + port}) {
    for (const char* wire : {"binary", "json"}) {
      SCOPED_TRACE(target + " " + wire);
      const Outcome run =
          relayCall({"--wire", wire, target, "relaytest.TestService.Echo", "{\"text\":\"hi\"}"});
      EXPECT_EQ(run.exit_code, 0) << run.err;
      EXPECT_EQ(run.out, "{\"text\":\"hi\"}\n");
    }
  }
  const Outcome bad = relayCall({"dns://resolver/x:1", "list"});
  EXPECT_EQ(bad.exit_code, 2);
  EXPECT_NE(bad.err.find("unsupported target"), std::string::npos) << bad.err;
  // Help is no error: it goes to standard output.
  const Outcome help = relayCall({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_EQ(help.out.compare(0, 7, "usage: "), 0) << help.out;
  EXPECT_EQ(help.err, "");
}

}  // namespace
}  // namespace relay
}  // namespace vantu
