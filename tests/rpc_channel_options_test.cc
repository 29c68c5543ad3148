// What a channel made with options accepts: its targets and its options.
#include "relay/rpc_channel_options.h"

#include <gtest/gtest.h>

#include "common/event_thread.h"
#include "relay/rpc.h"

namespace vantu {
namespace relay {
namespace {

TEST(RpcChannelOptionsTest, TargetsReadAsDocumented) {
  const struct {
    const char* text;
    const char* hosts;  // "host|port,..." as read; null: refused
    bool dns;
    const char* reason;  // part of the reason a refused one gives
  } kCases[] = {
      {"127.0.0.1:80", "127.0.0.1|80", false, ""},
      {"a.example:1,127.0.0.2:65535", "a.example|1,127.0.0.2|65535", false, ""},
      {"[::1]:9", "::1|9", false, ""},
      {"dns:///svc_1.local:443", "svc_1.local|443", true, ""},
      {"", nullptr, false, "empty target"},
      {"dns:///", nullptr, false, "empty target"},
      {"host", nullptr, false, "expected HOST:PORT"},
      {":80", nullptr, false, "expected HOST:PORT"},
      {"h:0", nullptr, false, "bad port \"0\""},
      {"h:65536", nullptr, false, "bad port"},
      {"h:8x", nullptr, false, "bad port"},
      {"h:", nullptr, false, "bad port"},
      {"::1:80", nullptr, false, "in brackets"},
      {"[::1:80", nullptr, false, "bad IPv6"},
      {"[example]:80", nullptr, false, "bad IPv6"},
      {"a b:1", nullptr, false, "bad host name"},
      {"a:1,", nullptr, false, "expected HOST:PORT"},
      {"dns:///a:1,b:2", nullptr, false, "one NAME:PORT"},
      {"dns://resolver/a:1", nullptr, false, "unsupported target"},
      {"http://a:1", nullptr, false, "unsupported target"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    RPCTarget target;
    std::string error;
    const bool parsed = RPCTarget::parse(c.text, &target, &error);
    ASSERT_EQ(c.hosts != nullptr, parsed) << error;
    if (!parsed) {
      EXPECT_NE(std::string::npos, error.find(c.reason)) << error;
      // A channel is not made on a target it cannot read.
      EXPECT_FALSE(RPCChannel::create(c.text, RPCChannelOptions()));
      continue;
    }
    std::string hosts;
    for (const RPCTarget::HostPort& host : target.hosts) {
      hosts += (hosts.empty() ? "" : ",") + host.host + "|" + std::to_string(host.port);
    }
    EXPECT_EQ(c.hosts, hosts);
    EXPECT_EQ(c.dns, target.dns);
  }
}

TEST(RpcChannelOptionsTest, UnusableOptionsSayWhyAndMakeNoChannel) {
  const auto with = [](void (*change)(RPCChannelOptions*)) {
    RPCChannelOptions options = RPCChannelOptions::resilient();
    change(&options);
    return options;
  };
  const struct {
    const char* name;
    RPCChannelOptions options;
    const char* problem;
  } kCases[] = {
      {"default", RPCChannelOptions(), ""},
      {"resilient", RPCChannelOptions::resilient(), ""},
      {"negative connect_timeout",
       with([](RPCChannelOptions* o) { o->connect_timeout = Duration::milliseconds(-1); }),
       "connect_timeout is negative"},
      {"negative default_timeout",
       with([](RPCChannelOptions* o) { o->default_timeout = Duration::milliseconds(-1); }),
       "default_timeout is negative"},
      {"no backoff", with([](RPCChannelOptions* o) { o->reconnect_backoff = Duration(); }),
       "reconnect_backoff must be positive with reconnect on"},
      {"ceiling below the first wait",
       with([](RPCChannelOptions* o) { o->reconnect_backoff_max = Duration::milliseconds(99); }),
       "reconnect_backoff_max is below reconnect_backoff"},
      {"no backoff without reconnect", with([](RPCChannelOptions* o) {
         o->reconnect = false;
         o->reconnect_backoff = Duration();
       }),
       ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.problem, c.options.problem());
    RPCChannelPtr channel = RPCChannel::create("127.0.0.1:1", c.options);
    EXPECT_EQ(c.problem[0] == '\0', channel != nullptr);
  }
  waitForDeferredWork();
}

}  // namespace
}  // namespace relay
}  // namespace vantu
