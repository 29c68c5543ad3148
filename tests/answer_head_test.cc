#include "relay/answer_head.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "relay/message_pool.h"

namespace vantu {
namespace relay {
namespace {

const std::string kDate = "Tue, 24 Nov 2026 11:48:47 GMT";

// What the head must say, written the plain way: the fields with the
// server's own lines stored over them, then every entry of the map in order.
std::string expectedHead(const HttpResponse& response, const std::string* date, bool with_length) {
  std::map<std::string, std::string> fields = response.headers;
  if (with_length) fields["Content-Length"] = std::to_string(response.content.size());
  if (date != nullptr) fields["Date"] = *date;
  std::string phrase = response.status_string;
  if (phrase.empty()) phrase = HttpResponse::getStatusString(response.status_code);
  phrase.resize(strnlen(phrase.data(), phrase.size()));  // written up to a NUL
  std::string text = "HTTP/1.1 " + std::to_string(response.status_code) + " " + phrase + "\r\n";
  for (const auto& field : fields) text += field.first + ": " + field.second + "\r\n";
  return text + "\r\n";
}

// Names on either side of, and equal to, the two the server writes itself,
// sharing long prefixes with them (the comparison goes eight bytes at a
// time), in other letter cases, and with bytes above 127 (compared unsigned).
// Separated by '|'.
const char kNearNames[] =
    "|C|Connection|Content-|Content-Lengt|Content-Length|Content-Length0|Content-Lengti|Content-"
    "Lengtg|Content-length|Content-Type|Content-Lengths-And-More|D|Dat|Date|Date-|Datf|Dat\x7f|"
    "Dat\xc3\xa9|Daa|date|X-Id|\xff";

TEST(AnswerHeadTest, RandomFieldSetsGiveThePlainWaysBytes) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  std::vector<std::string> near_names;
  std::istringstream names(kNearNames);
  for (std::string name; std::getline(names, name, '|');) near_names.push_back(name);
  for (int round = 0; round < 2000; ++round) {
    HttpResponse response;
    // Up to 40 fields: past 32 lines the head is written another way.
    const int fields = random() % 41;
    for (int i = 0; i < fields; ++i) {
      std::string name = near_names[random() % near_names.size()];
      if (random() % 2) name += static_cast<char>('!' + random() % 94);
      response.setHeader(name, std::string(random() % 20, 'v'));
    }
    response.content.resize(random() % 100000);
    response.status_code = static_cast<HttpResponse::StatusCode>(100 + random() % 500);
    const std::string kPhrases[] = {"", "", "Fine", std::string("Cut\0here", 8)};
    response.status_string = kPhrases[random() % 4];
    const std::string* date = random() % 2 ? &kDate : nullptr;
    const bool with_length = random() % 4 != 0;
    const std::string expected = expectedHead(response, date, with_length);
    const std::map<std::string, std::string> before = response.headers;
    const std::string phrase = response.status_string;
    std::string head;
    writeAnswerHead(&response, date, &head, with_length);
    ASSERT_EQ(expected, head) << "round " << round;
    // Written, not stored: the response is as the handler left it.
    ASSERT_EQ(before, response.headers) << "round " << round;
    ASSERT_EQ(phrase, response.status_string) << "round " << round;
  }
}

// A connection gathers the answers of one read into one buffer, each head
// written after what is there: it must keep every byte before it (a wrong
// start overwrites the previous answer) and add the very bytes
// writeAnswerHead makes, over kept buffers shorter and longer than the head.
TEST(AnswerHeadTest, AppendedHeadFollowsWhatIsGatheredUnchanged) {
  const std::string kGathered[] = {"", "X", "HTTP/1.1 200 OK\r\n\r\nearlier answer",
                                   std::string(5000, 'g')};
  for (const std::string& gathered : kGathered) {
    for (int with_date = 0; with_date < 2; ++with_date) {
      SCOPED_TRACE(testing::Message()
                   << "gathered " << gathered.size() << " bytes, date " << with_date);
      HttpResponse response;
      response.setContentType("text/plain");
      response.setHeader("X-Id", "7");
      response.content = {'o', 'k'};
      const std::string* date = with_date ? &kDate : nullptr;
      std::string alone = "a longer buffer left over from an earlier answer, kept for reuse";
      writeAnswerHead(&response, date, &alone);
      std::string out = gathered;
      appendAnswerHead(&response, date, &out);
      EXPECT_EQ(gathered + expectedHead(response, date, true), out);
      EXPECT_EQ(expectedHead(response, date, true), alone);
      // Twice in a row: the second head starts where the first ended.
      appendAnswerHead(&response, date, &out);
      EXPECT_EQ(gathered + alone + alone, out);
    }
  }
}

// A thread remembers its last head and, for an answer made like it, copies
// it with the new length instead of writing it again. Each answer here
// differs from the one before by one thing, a byte or a field: copying the
// remembered head for it would be wrong. Each is written twice (the second
// time from the remembered head) and then the first one again.
TEST(AnswerHeadTest, RememberedHeadServesOnlyAnswersMadeLikeIt) {
  const std::string kOtherDate = "Tue, 24 Nov 2026 11:48:48 GMT";
  auto base = [] {
    HttpResponse response;
    response.setContentType("text/plain");
    response.setHeader("X-Id", "7");
    response.setHeader("X-Trace", "abcdef");
    response.setHeader("X-Long", "0123456789abcdefghijklmnopqrstuvwxyz");
    response.content.assign(14, 'h');
    return response;
  };
  struct Variant {
    const char* what;
    void (*change)(HttpResponse*);
    const std::string* date = &kDate;
    bool with_length = true;
  };
  const Variant kVariants[] = {
      {"same", [](HttpResponse*) {}},
      {"shorter content", [](HttpResponse* r) { r->content.resize(9); }},
      {"longer content", [](HttpResponse* r) { r->content.resize(100000); }},
      {"no content", [](HttpResponse* r) { r->content.clear(); }},
      {"value's last byte", [](HttpResponse* r) { r->setContentType("text/plaim"); }},
      {"value one longer", [](HttpResponse* r) { r->setContentType("text/plains"); }},
      {"short value", [](HttpResponse* r) { r->setHeader("X-Id", "8"); }},
      {"value's first byte", [](HttpResponse* r) { r->setHeader("X-Trace", "bbcdef"); }},
      {"value's sixth byte", [](HttpResponse* r) { r->setHeader("X-Trace", "abcdeg"); }},
      {"long value's middle",
       [](HttpResponse* r) { r->setHeader("X-Long", "0123456789abcdefghijklmNopqrstuvwxyz"); }},
      {"name's case",
       [](HttpResponse* r) {
         r->headers.erase("Content-Type");
         r->setHeader("Content-type", "text/plain");
       }},
      {"field added", [](HttpResponse* r) { r->setHeader("X-Id", "7"); }},
      {"field removed", [](HttpResponse* r) { r->headers.erase("Content-Type"); }},
      {"field renamed",
       [](HttpResponse* r) {
         r->headers.erase("X-Id");
         r->setHeader("X-Ie", "7");
       }},
      {"stored length", [](HttpResponse* r) { r->setHeader("Content-Length", "14"); }},
      {"status", [](HttpResponse* r) { r->status_code = HttpResponse::kCreated; }},
      {"own phrase", [](HttpResponse* r) { r->status_string = "Fine"; }},
      {"next second", [](HttpResponse*) {}, &kOtherDate, true},
      {"no date", [](HttpResponse*) {}, nullptr, true},
      {"no length", [](HttpResponse*) {}, &kDate, false},
      {"many fields",
       [](HttpResponse* r) {
         for (char c = 'a'; c <= 'l'; ++c) r->setHeader(std::string("X-") + c, "v");
       }},
  };
  for (const Variant& variant : kVariants) {
    SCOPED_TRACE(variant.what);
    HttpResponse first = base();
    std::string head;
    writeAnswerHead(&first, &kDate, &head);
    ASSERT_EQ(expectedHead(first, &kDate, true), head);
    HttpResponse response = base();
    variant.change(&response);
    const std::string expected = expectedHead(response, variant.date, variant.with_length);
    for (int time = 0; time < 2; ++time) {
      std::string out = "gathered";
      appendAnswerHead(&response, variant.date, &out, variant.with_length);
      EXPECT_EQ("gathered" + expected, out) << "time " << time;
    }
    writeAnswerHead(&first, &kDate, &head);
    EXPECT_EQ(expectedHead(first, &kDate, true), head);
  }
}

TEST(AnswerHeadTest, OutputHeaderStillStoresThePhraseAndTheLength) {
  HttpResponse response;
  response.status_code = HttpResponse::kNotFound;
  response.setHeader("Content-Length", "999");
  response.content = {'a', 'b', 'c'};
  std::string head;
  response.outputHeader(&head);
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\nConnection: keep-alive\r\nContent-Length: 3\r\n\r\n", head);
  EXPECT_EQ("Not Found", response.status_string);
  EXPECT_EQ("3", response.headers["Content-Length"]);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
