#include "relay/head_assembler.h"

#include <gtest/gtest.h>

#include <string>

#include "common/memory_policy.h"

namespace vantu {
namespace relay {
namespace {

TEST(HeadAssemblerTest, CompletedLineLiesInPlaceUnlessPartWasKeptAndCountsAgainstTheBudget) {
  std::string line;
  HeadAssembler head(&line);
  const char chunk[] = "Host: h";
  size_t size = 7;
  EXPECT_EQ(chunk, head.complete(chunk, &size));
  EXPECT_EQ(7u, size);
  head.keep("Ho", 2);
  size = 5;
  const char* whole = head.complete(chunk + 2, &size);
  EXPECT_EQ("Host: h", std::string(whole, size));
  head.clearLine();
  EXPECT_TRUE(line.empty());

  // The budget counts completed lines and the line in progress.
  EXPECT_TRUE(head.fits(size_t{1} << 40)) << "no budget means no limit";
  head.setBudget(10);
  EXPECT_TRUE(head.fits(10));
  EXPECT_FALSE(head.fits(11));
  EXPECT_EQ(10u, head.room());
  head.countLine(4);
  EXPECT_TRUE(head.fits(6));
  EXPECT_FALSE(head.fits(7));
  head.keep("abc", 3);  // the line in progress counts against the room left
  EXPECT_EQ(3u, head.room());
  head.keep("def", 3);
  EXPECT_EQ(0u, head.room());
  head.countLine(7);  // past the budget: nothing fits, nothing is left
  EXPECT_FALSE(head.fits(0));
  head.clearLine();
  EXPECT_EQ(0u, head.room());
  head.startHead();
  EXPECT_EQ(10u, head.room());
  EXPECT_TRUE(head.fits(10));
}

TEST(HeadAssemblerTest, LongTargetTakesTheLineBufferInsteadOfACopy) {
  struct Case {
    const char* name;
    size_t target_length;
    bool in_buffer;
    bool taken;
  } cases[] = {
      {"short, in the buffer", 10, true, false},
      {"long, in the buffer", 2 * memory_policy::kLargestKeptString, true, true},
      {"long, in place", 2 * memory_policy::kLargestKeptString, false, false},
  };
  // And a line in place while a long one is kept: the buffer is not the
  // line's, whatever its size.
  {
    std::string buffer(3 * memory_policy::kLargestKeptString, 'k');
    HeadAssembler head(&buffer);
    const std::string line = "GET /in-place HTTP/1.1";
    std::string target;
    head.takeTarget(line.data(), 4, 9, &target);
    EXPECT_EQ("/in-place", target);
    EXPECT_EQ(3 * memory_policy::kLargestKeptString, buffer.size());
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string buffer;
    HeadAssembler head(&buffer);
    const std::string text = "GET /" + std::string(c.target_length - 1, 'a') + " HTTP/1.1";
    const char* line = text.data();
    if (c.in_buffer) {
      head.keep(text.data(), 3);
      size_t size = text.size() - 3;
      line = head.complete(text.data() + 3, &size);
    }
    const char* const where = line;
    std::string target;
    head.takeTarget(line, 4, c.target_length, &target);
    EXPECT_EQ(text.substr(4, c.target_length), target);
    // Taken: the target holds the buffer's own bytes, and the buffer is empty.
    EXPECT_EQ(c.taken, target.data() == where);
    if (c.taken) {
      EXPECT_TRUE(buffer.empty());
    } else if (c.in_buffer) {
      EXPECT_EQ(text, buffer);
    }
  }
}

TEST(HeadAssemblerTest, StoredHeaderKeepsTheLastValueOfAName) {
  std::string line;
  HeadAssembler head(&line);
  message_pool::Headers headers;
  {
    HeadAssembler::Scope scope(&head);
    EXPECT_EQ(message_pool::threadPool(), head.pool());
    head.storeHeader(&headers, "B", 1, "1", 1);
    head.storeHeader(&headers, "A", 1, "2", 1);
    EXPECT_EQ("3", head.storeHeader(&headers, "B", 1, "3", 1)->second);
  }
  head.storeHeader(&headers, "C", 1, "4", 1);  // outside a scope too
  EXPECT_EQ((message_pool::Headers{{"A", "2"}, {"B", "3"}, {"C", "4"}}), headers);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
