#include "relay/server_sent_events.h"

#include <gtest/gtest.h>

#include <string>

namespace vantu {
namespace relay {
namespace {

TEST(ServerSentEventsTest, FormatsFieldsAndSplitsEveryKindOfLineBreak) {
  struct Case {
    const char* name;
    std::string data, event, id, expected;
  };
  const Case kCases[] = {
      {"plain", "hello", "", "", "data: hello\n\n"},
      {"empty data", "", "", "", "data: \n\n"},
      {"named with id", "x", "tick", "7", "event: tick\nid: 7\ndata: x\n\n"},
      {"LF", "a\nb", "", "", "data: a\ndata: b\n\n"},
      {"CR LF", "a\r\nb", "", "", "data: a\ndata: b\n\n"},
      {"lone CR", "a\rb", "", "", "data: a\ndata: b\n\n"},
      {"CR then LF twice", "a\r\n\r\nb", "", "", "data: a\ndata: \ndata: b\n\n"},
      {"trailing break", "a\n", "", "", "data: a\ndata: \n\n"},
      // A line break in the name or id would end the field early and let the
      // rest pass for a field of its own.
      {"break in event and id", "x", "a\ndata: evil", "1\r2",
       "event: a data: evil\nid: 1 2\ndata: x\n\n"},
  };
  for (const Case& test : kCases) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(test.expected, formatServerSentEvent(test.data, test.event, test.id));
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
