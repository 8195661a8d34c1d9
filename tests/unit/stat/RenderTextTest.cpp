#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Render.h"
#include "stat/SampleFixture.h"

namespace {

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    out.push_back(line);
  }
  return out;
}

std::vector<std::string> words(const std::string& line) {
  std::vector<std::string> out;
  std::istringstream in(line);
  std::string word;
  while (in >> word) {
    out.push_back(word);
  }
  return out;
}

std::string rendered(Stat::Sample sample) {
  Stat::assess(sample, {});
  return Stat::renderText(sample);
}

Stat::Sample twoTables() {
  Stat::Table healthy = StatTest::healthyTable("md/eu/quotes");
  healthy.writer.heartbeatAgeSeconds = 1.5;
  return StatTest::sampleOf({healthy, StatTest::brokenTable("orders")});
}

TEST(StatRenderText, HeaderNamesTheColumnsOfTheDesign) {
  const std::vector<std::string> header = words(lines(rendered(twoTables()))[0]);
  EXPECT_EQ(header, (std::vector<std::string>{"TABLE", "STATE", "PID", "BEAT", "RESTARTS", "SHADOWS", "SEQUENCE",
                                              "RATE/S", "Q", "FILL", "SWITCH", "ALLOC", "FULLEST"}));
}

TEST(StatRenderText, OneLinePerTableWithEveryFigure) {
  const std::vector<std::string> all = lines(rendered(twoTables()));
  // 72 of 64-byte and 10 of 256-byte units used of 100 each: 7168 of 32000.
  EXPECT_EQ(words(all[1]), (std::vector<std::string>{"md/eu/quotes", "ok", "4711", "1.5s", "2", "2", "123456", "1000",
                                                     "2", "25%", "0.8s", "22%", "#1", "64B", "72%"}));
}

TEST(StatRenderText, UnreadFiguresAreDashesAndUnseenClientsAQuestionMark) {
  const std::vector<std::string> all = lines(rendered(twoTables()));
  EXPECT_EQ(words(all[2]),
            (std::vector<std::string>{"orders", "broken", "-", "-", "-", "?", "-", "-", "-", "-", "-", "-", "-"}));
}

TEST(StatRenderText, ColumnsAreAligned) {
  const std::vector<std::string> all = lines(rendered(twoTables()));
  // Left-aligned STATE starts at one offset; right-aligned SEQUENCE ends at one.
  const std::size_t state = all[0].find("STATE");
  EXPECT_EQ(all[1].find("ok"), state);
  EXPECT_EQ(all[2].find("broken"), state);
  const std::size_t sequenceEnd = all[0].find("SEQUENCE") + 8;
  EXPECT_EQ(all[1].find("123456") + 6, sequenceEnd);
}

TEST(StatRenderText, ProblemsFollowTheTableAfterABlankLine) {
  const std::vector<std::string> all = lines(rendered(twoTables()));
  ASSERT_EQ(all.size(), 5U);
  EXPECT_EQ(all[3], "");
  EXPECT_EQ(all[4], "critical  orders: /dev/shm/heron/orders/owner: bad magic");
}

TEST(StatRenderText, ControlCharactersInNamesNeverReachTheTerminal) {
  Stat::Table table = StatTest::healthyTable("evil\x1b]0;title\x07name");
  table.fileErrors.push_back("reason with \x1b[31m escape");
  const std::string text = rendered(StatTest::sampleOf({table}));
  for (char c : text) {
    EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 && c != '\n') << "raw control byte " << static_cast<int>(c);
  }
  EXPECT_NE(text.find("evil\\x1b]0;title\\x07name"), std::string::npos);
  EXPECT_NE(text.find("reason with \\x1b[31m escape"), std::string::npos);
}

TEST(StatRenderText, NonAsciiNamesKeepTheirColumnsAligned) {
  Stat::Table wide = StatTest::healthyTable("caf\xc3\xa9");
  Stat::Table plain = StatTest::healthyTable("cafe");
  const std::vector<std::string> all = lines(rendered(StatTest::sampleOf({wide, plain})));
  // Same number of characters, so the state column starts one byte later in
  // the line whose name has a two-byte character.
  EXPECT_EQ(all[1].find("ok"), all[2].find("ok") + 1);
}

TEST(StatRenderText, WideAndCombiningCharactersAreAlignedByTheirColumns) {
  // "md/" and three CJK characters of two columns each: 9 columns, 12 bytes,
  // 6 characters. "e" with a combining acute accent twice: 2 columns.
  Stat::Table wide = StatTest::healthyTable("md/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e");
  Stat::Table combining = StatTest::healthyTable(
      "e\xcc\x81"
      "e\xcc\x81");
  Stat::Table plain = StatTest::healthyTable("orders");
  const std::vector<std::string> all = lines(rendered(StatTest::sampleOf({wide, combining, plain})));
  ASSERT_GE(all.size(), 4U);
  EXPECT_EQ(all[0].substr(0, 13), "TABLE      ST") << all[0];
  EXPECT_EQ(all[1].substr(0, 16), "md/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e  ok") << all[1];
  EXPECT_EQ(all[2].substr(0, 17),
            "e\xcc\x81"
            "e\xcc\x81         ok")
      << all[2];
  EXPECT_EQ(all[3].substr(0, 13), "orders     ok") << all[3];
}

TEST(StatRenderText, AnEmptyCollectionSaysSo) {
  const std::vector<std::string> all = lines(rendered(StatTest::sampleOf({})));
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[1], "(no tables under /dev/shm/heron)");
}

TEST(StatRenderText, ARootThatCannotBeListedIsOneLine) {
  Stat::Sample sample = StatTest::unusableRoot("collection root /dev/shm/heorn does not exist");
  EXPECT_EQ(rendered(sample), "collection root /dev/shm/heorn does not exist\n");
}

TEST(StatRenderText, AnExprThatMatchesNothingIsOneLine) {
  Stat::Sample sample = StatTest::unmatched("md/x", 1);
  EXPECT_EQ(rendered(sample), "no table matches md/x under /dev/shm/heron (1 table there)\n");
}

TEST(StatRenderText, UnknownClientsAreSaidOnceAfterTheTable) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("a")});
  sample.clientsKnown = false;
  const std::vector<std::string> all = lines(rendered(sample));
  ASSERT_EQ(all.size(), 4U);
  EXPECT_EQ(all[2], "");
  EXPECT_EQ(all[3].rfind("clients unknown (not root): dead writers are judged by pid and heartbeat only", 0), 0U);
  sample.clientsKnown = true;
  EXPECT_EQ(lines(rendered(sample)).size(), 2U);
}

TEST(StatPrintable, EscapesControlsDelC1AndInvalidUtf8) {
  EXPECT_EQ(Stat::printable("a\tb\x7f"), "a\\x09b\\x7f");
  EXPECT_EQ(Stat::printable("\xc2\x9b"), "\\u009b");
  EXPECT_EQ(Stat::printable("\xff\xc3"), "\\xff\\xc3");
  EXPECT_EQ(Stat::printable("back\\slash"), "back\\\\slash");
  EXPECT_EQ(Stat::printable("\xe6\x97\xa5\xc3\xa9"), "\xe6\x97\xa5\xc3\xa9");
}

TEST(StatDuration, TenthsUnderTenSecondsThenWholeSecondsInTheLargestUnits) {
  EXPECT_EQ(Stat::duration(0.44), "0.4s");
  EXPECT_EQ(Stat::duration(9.94), "9.9s");
  EXPECT_EQ(Stat::duration(9.96), "10s");
  EXPECT_EQ(Stat::duration(59.4), "59s");
  EXPECT_EQ(Stat::duration(185), "3m05s");
  EXPECT_EQ(Stat::duration(7260), "2h01m");
  EXPECT_EQ(Stat::duration(273600), "3d04h");
}

}  // namespace
