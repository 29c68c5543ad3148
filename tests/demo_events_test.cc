// The demo's /events, read as a client nobody here wrote reads it: Python's
// http.client over a real demo_server process.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/demo_process.h"
#include "tests/shell_output.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::DemoProcess;

TEST(DemoEventsTest, EventsStreamTheCountersEverySecondToPython) {
  DemoProcess demo(DEMO_SERVER_PATH, 0);
  ASSERT_TRUE(demo.ok());
  // Reads three "counters" events (the first at once, then one a second),
  // checks the stream's headers and each event's fields, and prints the
  // request counts seen.
  const std::string script =
      "import http.client, json, sys\n"
      "c = http.client.HTTPConnection('127.0.0.1', int(sys.argv[1]), timeout=30)\n"
      "c.request('GET', '/events')\n"
      "r = c.getresponse()\n"
      "assert r.status == 200\n"
      "assert r.getheader('Content-Type') == 'text/event-stream', r.getheaders()\n"
      "assert r.getheader('Cache-Control') == 'no-cache'\n"
      "assert r.getheader('Transfer-Encoding') == 'chunked'\n"
      "events, name, data = [], None, []\n"
      "while len(events) < 3:\n"
      "    line = r.fp.readline().decode()\n"
      "    assert line, 'the stream ended'\n"
      "    line = line.rstrip('\\r\\n')\n"
      "    if line.startswith('event: '): name = line[7:]\n"
      "    elif line.startswith('data: '): data.append(line[6:])\n"
      "    elif line == '' and data:\n"
      "        events.append((name, json.loads('\\n'.join(data)))); name, data = None, []\n"
      "for name, counters in events:\n"
      "    assert name == 'counters', name\n"
      "    assert set(counters) == {'requests', 'rpcs', 'rpcs_in_flight', 'connections'}, "
      "counters\n"
      "    assert counters['connections'] >= 1, counters\n"
      "print(' '.join(str(int(c['requests'])) for _, c in events))\n";
  const std::string out =
      vantu::testing::pythonOutput(script, std::to_string(demo.port()) + " 2>&1");
  unsigned first = 0, second = 0, third = 0;
  ASSERT_EQ(3, sscanf(out.c_str(), "%u %u %u", &first, &second, &third)) << out;
  // The stream's own request counts once it was dispatched, before the
  // second event.
  EXPECT_GE(second, 1u) << out;
  EXPECT_LE(first, second);
  EXPECT_LE(second, third);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
