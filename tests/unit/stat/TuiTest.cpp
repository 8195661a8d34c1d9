#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Render.h"
#include "TuiLayout.h"
#include "TuiView.h"
#include "stat/SampleFixture.h"

namespace {

using Stat::Tui::Key;
using Stat::Tui::KeyKind;
using Stat::Tui::SortKey;

Stat::Table deadTable(const std::string& name) {
  Stat::Table table = StatTest::healthyTable(name);
  table.writer.alive = Stat::Seen::No;
  return table;
}

Stat::Table withRate(Stat::Table table, double rate, double fill) {
  table.queues.ratePerSecond = rate;
  table.queues.fillRatio = fill;
  return table;
}

Key ch(char32_t c) { return Key{KeyKind::Char, c}; }

// 60 tables, every seventh dead: the incident the view is made for.
Stat::Sample manyTables() {
  Stat::Sample sample = StatTest::sampleOf({});
  for (int i = 0; i < 60; ++i) {
    const std::string name = "md/region" + std::to_string(i / 10) + "/table" + std::to_string(i % 10);
    sample.tables.push_back(i % 7 == 3 ? deadTable(name) : StatTest::healthyTable(name));
  }
  return sample;
}

std::string joined(const Stat::Tui::Frame& frame) {
  std::string text;
  for (const auto& line : frame.lines) {
    text += line.text + "\n";
  }
  return text;
}

void expectFits(const Stat::Tui::Frame& frame, std::size_t rows, std::size_t columns) {
  EXPECT_LE(frame.lines.size(), rows);
  for (const auto& line : frame.lines) {
    EXPECT_LE(Stat::displayWidth(line.text), columns) << line.text;
  }
}

TEST(TuiText, EllipsizeCutsByDisplayWidth) {
  EXPECT_EQ(Stat::ellipsize("quotes", 6), "quotes");
  EXPECT_EQ(Stat::ellipsize("quotes", 5), "quot\u2026");
  // Each of these CJK characters takes two columns: 5 columns hold two and
  // the ellipsis, never half a character.
  EXPECT_EQ(Stat::ellipsize("\u540d\u524d\u540d\u524d", 5), "\u540d\u524d\u2026");
  EXPECT_EQ(Stat::displayWidth(Stat::ellipsize("\u540d\u524d\u540d\u524d", 4)), 3u);
  EXPECT_EQ(Stat::ellipsize("caf\u00e9s", 4), "caf\u2026");
  EXPECT_EQ(Stat::ellipsize("abc", 0), "");
}

TEST(TuiText, FilterIsAGlobCrossingSlashOrAPrefix) {
  using Stat::Tui::nameMatches;
  EXPECT_TRUE(nameMatches("", "md/eu/quotes"));
  EXPECT_TRUE(nameMatches("md/*/quotes", "md/eu/quotes"));
  EXPECT_TRUE(nameMatches("*quotes", "md/eu/quotes"));
  EXPECT_FALSE(nameMatches("*trades", "md/eu/quotes"));
  EXPECT_TRUE(nameMatches("md/eu", "md/eu/quotes"));
  EXPECT_FALSE(nameMatches("eu", "md/eu/quotes"));
}

TEST(TuiText, SortsWorstFirstThenByEachKey) {
  const Stat::Sample sample = [] {
    Stat::Sample s = StatTest::sampleOf({withRate(StatTest::healthyTable("a"), 10, 0.9),
                                         withRate(StatTest::healthyTable("b"), 500, 0.1), deadTable("c"),
                                         StatTest::brokenTable("d")});
    s.tables[2].queues.ratePerSecond.reset();
    Stat::assess(s, Stat::Thresholds{});
    return s;
  }();
  using Stat::Tui::visibleTables;
  EXPECT_EQ(visibleTables(sample, SortKey::State, ""), (std::vector<std::size_t>{3, 2, 0, 1}));
  EXPECT_EQ(visibleTables(sample, SortKey::Name, ""), (std::vector<std::size_t>{0, 1, 2, 3}));
  // The broken table has no rate, the dead one lost it: both last, by name.
  EXPECT_EQ(visibleTables(sample, SortKey::Rate, ""), (std::vector<std::size_t>{1, 0, 2, 3}));
  EXPECT_EQ(visibleTables(sample, SortKey::Fill, "")[0], 0u);
  EXPECT_EQ(visibleTables(sample, SortKey::State, "[ab]"), (std::vector<std::size_t>{0, 1}));
  EXPECT_EQ(Stat::Tui::nextSort(SortKey::Allocation), SortKey::State);
}

TEST(TuiText, ColumnsDropByPriorityButNameStateAndBeatStay) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("md/eu/a-rather-long-table-name-for-quotes")});
  const std::vector<std::size_t> all{0};
  const auto wide = Stat::Tui::fitColumns(sample, all, 200);
  EXPECT_EQ(wide.shown.size(), Stat::tableHeader().size());
  EXPECT_EQ(Stat::Tui::tableLine(sample.tables[0], wide).text.find("md/eu/a-rather-long-table-name-for-quotes"), 0u);

  const auto narrow = Stat::Tui::fitColumns(sample, all, 27);
  EXPECT_EQ(narrow.shown, (std::vector<std::size_t>{0, 1, 3}));
  const std::string line = Stat::Tui::tableLine(sample.tables[0], narrow).text;
  EXPECT_LE(Stat::displayWidth(line), 27u) << line;
  EXPECT_NE(line.find("\u2026"), std::string::npos) << line;
  EXPECT_NE(line.find(" ok "), std::string::npos) << line;

  // At 80 columns fill and rate are kept before the sequence.
  const auto middle = Stat::Tui::fitColumns(sample, all, 80);
  const std::string header = Stat::Tui::headerLine(middle).text;
  EXPECT_NE(header.find("FILL"), std::string::npos) << header;
  EXPECT_NE(header.find("RATE/S"), std::string::npos) << header;
  EXPECT_EQ(header.find("SEQUENCE"), std::string::npos) << header;
  EXPECT_LE(Stat::displayWidth(header), 80u);
}

TEST(TuiView, SixtyTablesFitEightyByTwentyFourWorstFirst) {
  Stat::Options options;
  Stat::Tui::View view(options);
  view.take(manyTables());
  const Stat::Tui::Frame frame = view.frame(24, 80);
  expectFits(frame, 24, 80);
  ASSERT_EQ(frame.lines.size(), 24u);
  EXPECT_EQ(frame.lines[0].text.find("60 tables: 9 dead, 51 ok"), 0u) << frame.lines[0].text;
  EXPECT_EQ(frame.lines[0].tone, Stat::Tui::Tone::Bad);
  // Problems take at most a third of the room, the rest says how many more.
  EXPECT_NE(joined(frame).find("more problems"), std::string::npos) << joined(frame);
  std::size_t header = 0;
  while (header < frame.lines.size() && frame.lines[header].text.rfind("TABLE", 0) != 0) {
    ++header;
  }
  ASSERT_LT(header, 10u) << joined(frame);
  EXPECT_EQ(frame.selected, header + 1);
  EXPECT_NE(frame.lines[header + 1].text.find(" dead "), std::string::npos);
  EXPECT_EQ(frame.lines[header + 1].tone, Stat::Tui::Tone::Bad);
  EXPECT_EQ(frame.lines[23].text.rfind("sort: state", 0), 0u) << frame.lines[23].text;
}

TEST(TuiView, KeysScrollSortFilterAndQuit) {
  Stat::Options options;
  Stat::Tui::View view(options);
  view.take(manyTables());
  view.frame(24, 80);
  ASSERT_TRUE(view.press(Key{KeyKind::End}));
  Stat::Tui::Frame frame = view.frame(24, 80);
  // The last table by state is the last ok one in name order (table9 of
  // region5 is dead).
  ASSERT_LT(frame.selected, frame.lines.size());
  EXPECT_EQ(frame.lines[frame.selected].text.rfind("md/region5/table8", 0), 0u) << joined(frame);
  view.press(Key{KeyKind::Home});
  frame = view.frame(24, 80);
  EXPECT_NE(frame.lines[frame.selected].text.find(" dead "), std::string::npos);
  view.press(Key{KeyKind::PageDown});
  view.press(Key{KeyKind::Down});
  frame = view.frame(24, 80);
  EXPECT_NE(frame.lines[frame.selected].text.find(" ok "), std::string::npos) << joined(frame);
  view.press(Key{KeyKind::PageUp});
  view.press(Key{KeyKind::Up});

  view.press(ch('s'));
  EXPECT_EQ(view.sort(), SortKey::Name);
  frame = view.frame(24, 80);
  EXPECT_EQ(frame.lines[frame.selected].text.rfind("md/region0/table0", 0), 0u) << joined(frame);

  for (char32_t c : {U'/', U'*', U'4', U'/', U'x', U'y'}) {
    view.press(ch(c));
  }
  view.press(Key{KeyKind::Backspace});
  view.press(Key{KeyKind::Backspace});
  view.press(ch('t'));
  view.press(ch('*'));
  EXPECT_NE(view.frame(24, 80).lines[23].text.find("filter: *4/t*_"), std::string::npos);
  view.press(Key{KeyKind::Enter});
  EXPECT_EQ(view.filter(), "*4/t*");
  frame = view.frame(24, 80);
  EXPECT_NE(frame.lines[23].text.find("10 of 60 tables"), std::string::npos) << frame.lines[23].text;
  view.press(ch('/'));
  view.press(ch('z'));
  view.press(Key{KeyKind::Escape});
  EXPECT_EQ(view.filter(), "*4/t*");
  view.press(Key{KeyKind::Escape});
  EXPECT_EQ(view.filter(), "");

  EXPECT_FALSE(view.press(ch('q')));
}

TEST(TuiView, EnterOpensTheDetailEscGoesBack) {
  Stat::Options options;
  Stat::Tui::View view(options);
  view.take(StatTest::sampleOf({StatTest::healthyTable("alpha"), deadTable("beta")}));
  view.press(Key{KeyKind::Down});
  view.press(Key{KeyKind::Enter});
  Stat::Tui::Frame frame = view.frame(24, 80);
  expectFits(frame, 24, 80);
  const std::string text = joined(frame);
  EXPECT_NE(text.find("\nalpha  ok\n"), std::string::npos) << text;
  EXPECT_NE(text.find("writer    pid 4711  heartbeat 0.2s ago"), std::string::npos) << text;
  EXPECT_NE(text.find("namespace pid 4711"), std::string::npos) << text;
  EXPECT_NE(text.find("queue 2 [###.......]  25%  position 256/1024  epoch 4  active, switch 0.8s"), std::string::npos)
      << text;
  EXPECT_NE(text.find("#1       64 B  [############....]  72%  72/100 used"), std::string::npos) << text;
  EXPECT_NE(text.find("clients   writers 4711  shadows 4712 4713"), std::string::npos) << text;
  view.press(Key{KeyKind::Escape});
  EXPECT_NE(joined(view.frame(24, 80)).find("TABLE"), std::string::npos);
}

TEST(TuiView, PauseAndHelp) {
  Stat::Options options;
  Stat::Tui::View view(options);
  view.take(StatTest::sampleOf({StatTest::healthyTable("alpha")}));
  view.press(ch('p'));
  EXPECT_TRUE(view.paused());
  EXPECT_EQ(view.frame(24, 80).lines[0].text.rfind("PAUSED", 0), 0u);
  view.press(ch('p'));
  EXPECT_FALSE(view.paused());
  view.press(ch('?'));
  const std::string help = joined(view.frame(24, 80));
  EXPECT_NE(help.find("Keys"), std::string::npos);
  EXPECT_NE(help.find("pause or resume sampling"), std::string::npos);
  view.press(Key{KeyKind::Escape});
  EXPECT_NE(joined(view.frame(24, 80)).find("TABLE"), std::string::npos);
}

TEST(TuiView, TinyAndHugeTerminalsStayInside) {
  Stat::Options options;
  Stat::Tui::View view(options);
  view.take(manyTables());
  for (const auto& [rows, columns] : {std::pair<std::size_t, std::size_t>{3, 10}, {5, 20}, {50, 200}, {1, 1}}) {
    expectFits(view.frame(rows, columns), rows, columns);
  }
  EXPECT_EQ(Stat::Tui::bar(0.5, 4), "[##..]");
  EXPECT_EQ(Stat::Tui::bar(1.5, 2), "[##]");
}

TEST(TuiText, CriticalProblemsFirstAndTheRootsTroubleInTheSummary) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("a"), deadTable("b")});
  sample.problems.push_back({Stat::Severity::Warning, "about the collection"});
  Stat::assess(sample, Stat::Thresholds{});
  const std::vector<Stat::Tui::Line> problems = Stat::Tui::problemLines(sample, 80);
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_EQ(problems[0].text.rfind("critical  b: ", 0), 0u) << problems[0].text;
  EXPECT_EQ(problems[1].text, "warning   about the collection");

  const Stat::Tui::Line trouble =
      Stat::Tui::summaryLine(StatTest::unusableRoot("collection root /nowhere does not exist"), false, 80);
  EXPECT_EQ(trouble.text, "collection root /nowhere does not exist");
  EXPECT_EQ(trouble.tone, Stat::Tui::Tone::Bad);
  Stat::Sample unknown = StatTest::sampleOf({StatTest::healthyTable("a")});
  unknown.clientsKnown = false;
  EXPECT_NE(Stat::Tui::summaryLine(unknown, false, 200).text.find("clients unknown"), std::string::npos);
}

TEST(TuiView, TheDetailSaysWhenItsTableIsGone) {
  Stat::Options options;
  Stat::Tui::View view(options);
  view.take(StatTest::sampleOf({StatTest::healthyTable("alpha")}));
  view.press(Key{KeyKind::Enter});
  view.take(StatTest::sampleOf({StatTest::healthyTable("beta")}));
  const std::string text = joined(view.frame(24, 80));
  EXPECT_NE(text.find("/dev/shm/heron/alpha is no longer in the collection"), std::string::npos) << text;
}

}  // namespace
