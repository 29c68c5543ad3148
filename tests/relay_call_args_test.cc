// relay_call's command line: what each form means and what is refused.
#include "relay_call_args.h"

#include <gtest/gtest.h>

namespace relay_call {
namespace {

Options parse(const std::vector<std::string>& args) {
  Options options;
  std::string error;
  EXPECT_TRUE(parseArguments(args, &options, &error)) << error;
  return options;
}

TEST(RelayCallArgsTest, AcceptedFormsMeanWhatTheySay) {
  Options options = parse({"127.0.0.1:8080", "list"});
  EXPECT_EQ(options.host, "127.0.0.1");
  EXPECT_EQ(options.port, 8080);
  EXPECT_EQ(options.verb, Verb::kList);
  EXPECT_EQ(options.wire, Wire::kBinary);
  EXPECT_EQ(options.timeout_ms, 10000);

  options = parse({"--timeout-ms=250", "[::1]:9", "describe", "pkg.Msg", "--wire", "json"});
  EXPECT_EQ(options.host, "::1");
  EXPECT_EQ(options.port, 9);
  EXPECT_EQ(options.verb, Verb::kDescribe);
  EXPECT_EQ(options.target, "pkg.Msg");
  EXPECT_EQ(options.wire, Wire::kJson);
  EXPECT_EQ(options.timeout_ms, 250);

  options = parse({"--proto", "a.proto", "-I", "dir1", "localhost:1", "pkg.Svc.M", "-",
                   "--proto=b.proto", "-Idir2", "--import-path", "dir3"});
  EXPECT_EQ(options.host, "localhost");
  EXPECT_EQ(options.verb, Verb::kCall);
  EXPECT_EQ(options.target, "pkg.Svc.M");
  EXPECT_EQ(options.request_json, "-");
  EXPECT_EQ(options.proto_files, (std::vector<std::string>{"a.proto", "b.proto"}));
  EXPECT_EQ(options.import_paths, (std::vector<std::string>{"dir1", "dir2", "dir3"}));

  // After "--" an argument that looks like an option is the request.
  options = parse({"h:2", "--", "Svc.M", "--wire"});
  EXPECT_EQ(options.target, "Svc.M");
  EXPECT_EQ(options.request_json, "--wire");

  EXPECT_TRUE(parse({"--help", "whatever"}).help);
}

TEST(RelayCallArgsTest, BadUsageHasAOneLineReason) {
  const struct {
    std::vector<std::string> args;
    const char* reason;
  } kCases[] = {
      {{}, "missing HOST:PORT"},
      {{"127.0.0.1:8080"}, "missing what to do"},
      // The target is read as a channel reads it (the channel's options test
      // has every way one is refused).
      {{"127.0.0.1"}, "expected HOST:PORT"},
      {{"h:1", "list", "extra"}, "unexpected argument \"extra\""},
      {{"h:1", "describe"}, "describe needs a SYMBOL"},
      {{"h:1", "Echo", "{}"}, "not list, describe or package.Service.Method"},
      {{"h:1", "Svc.M"}, "missing the request"},
      {{"h:1", "Svc.M", "{}", "{}"}, "unexpected argument"},
      {{"--wire", "xml", "h:1", "list"}, "--wire is binary or json"},
      {{"--timeout-ms", "0", "h:1", "list"}, "--timeout-ms wants"},
      {{"--timeout-ms", "99999999999999999999", "h:1", "list"}, "--timeout-ms wants"},
      {{"h:1", "list", "--proto"}, "--proto needs a value"},
      {{"--verbose", "h:1", "list"}, "unknown option --verbose"},
  };
  for (const auto& test : kCases) {
    std::string joined;
    for (const std::string& arg : test.args) joined += arg + " ";
    SCOPED_TRACE(joined);
    Options options;
    std::string error;
    EXPECT_FALSE(parseArguments(test.args, &options, &error));
    EXPECT_NE(error.find(test.reason), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
}

}  // namespace
}  // namespace relay_call
