// The client model: header summary, client lists and table printing.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <stdexcept>

#include "model/Model.h"
#include "support/ReportText.h"

namespace {

using Heron::Model::HeaderInfo;
using Heron::Model::HeronClient;
using Heron::Model::HeronTable;

using HeronTest::kNoHeader;

std::string streamed(Heron::HeronType type) {
  std::ostringstream out;
  out << type;
  return out.str();
}

TEST(HeronTypeTest, TextForms) {
  EXPECT_EQ(streamed(Heron::Writer), "Writer");
  EXPECT_EQ(streamed(Heron::Shadow), "Shadow");
  EXPECT_EQ(streamed(static_cast<Heron::HeronType>(7)), "7");
}

TEST(HeaderInfoTest, UnfilledHeaderPrintsNotAvailable) { EXPECT_EQ(HeaderInfo().print(), kNoHeader); }

TEST(HeaderInfoTest, FilledHeaderPrintsDecimals) {
  HeaderInfo info;
  info.primaryNotifications = 8;
  info.secondaryNotifications = 0;
  info.numRegions = 3;
  info.totalSize = 4194304;
  info.pagesFree = 17;
  info.occupancyRate = 12;
  EXPECT_EQ(info.print(),
            "Capacity: primaryNotifications:8 secondaryNotifications:0\n"
            "numRegions:3 totalSize:4.000MB pagesFree:17 occupancyRate:12%\n");
}

TEST(HeaderInfoTest, AllOnesIn64BitFieldsPrintsAsNumber) {
  HeaderInfo info;
  info.numRegions = 18446744073709551615ULL;
  EXPECT_NE(info.print().find("numRegions:18446744073709551615 "), std::string::npos);
}

TEST(FormatSizeTest, SizeClasses) {
  EXPECT_EQ(Heron::Model::formatSize(0), "0B");
  EXPECT_EQ(Heron::Model::formatSize(1023), "1023B");
  EXPECT_EQ(Heron::Model::formatSize(1024), "1.000KB");
  EXPECT_EQ(Heron::Model::formatSize(1536), "1.500KB");
  EXPECT_EQ(Heron::Model::formatSize(1048576), "1.000MB");
  EXPECT_EQ(Heron::Model::formatSize(4294967295ULL), "NA");
}

TEST(FormatSizeTest, JustBelowOneMegabyteIsKilobytesInSinglePrecision) {
  // 1048575 * 2^-10 = 1023.9990234375, exact in a float; three decimals.
  EXPECT_EQ(Heron::Model::formatSize(1048575), "1023.999KB");
}

TEST(FormatSizeTest, LargeSizesLoseDigitsInSinglePrecision) {
  // 2^40 + 1 bytes: the float drops the last byte, the product is 2^20 exactly.
  EXPECT_EQ(Heron::Model::formatSize(1099511627777ULL), "1048576.000MB");
  // 4294967296 + 4294967295 / 1 MiB as a float product.
  const float expected = static_cast<float>(8589934591ULL) * 9.5367431640625e-07F;
  EXPECT_EQ(Heron::Model::formatSize(8589934591ULL), fmt::format("{:.3f}MB", expected));
  EXPECT_EQ(Heron::Model::formatSize(8589934591ULL), "8192.000MB");
}

TEST(HeronTableTest, NewTableHasTwoEmptyClientLists) {
  HeronTable table("orders");
  ASSERT_EQ(table.clients.size(), 2U);
  EXPECT_TRUE(table.clients.at(Heron::Writer).empty());
  EXPECT_TRUE(table.clients.at(Heron::Shadow).empty());
  EXPECT_EQ(table.headerInfo.totalSize, HeaderInfo::kNotAvailable);
}

TEST(HeronTableTest, TableWithoutClientsPrintsNone) {
  HeronTable table("orders");
  EXPECT_EQ(table.print(), std::string("Heron table \"orders\"\n") + kNoHeader + "Clients: None\n\n");
}

TEST(HeronTableTest, ShadowsWithoutWriterPrintNoWriterLine) {
  HeronTable table("orders");
  table.clients.at(Heron::Shadow).emplace_back(200, "view");
  table.clients.at(Heron::Shadow).back().command = "view";
  EXPECT_EQ(table.print(), std::string("Heron table \"orders\"\n") + kNoHeader + "Shadow: view-200(view)\n\n");
}

TEST(HeronTableTest, WorkedExample) {
  HeronTable table("orders");
  table.headerInfo.primaryNotifications = 8;
  table.headerInfo.numRegions = 3;
  table.headerInfo.totalSize = 4194304;
  table.headerInfo.pagesFree = 17;
  table.headerInfo.occupancyRate = 12;
  table.clients.at(Heron::Writer).emplace_back(100, "feed");
  table.clients.at(Heron::Writer).back().command = "feed";
  table.clients.at(Heron::Shadow).emplace_back(201, "view");
  table.clients.at(Heron::Shadow).emplace_back(200, "view");
  for (HeronClient& client : table.clients.at(Heron::Shadow)) {
    client.command = "view";
  }
  table.sortClients();
  EXPECT_EQ(table.print(),
            "Heron table \"orders\"\n"
            "Capacity: primaryNotifications:8 secondaryNotifications:NA\n"
            "numRegions:3 totalSize:4.000MB pagesFree:17 occupancyRate:12%\n"
            "Writer: feed-100(feed)\n"
            "Shadow: view-200(view) view-201(view)\n"
            "\n");
}

TEST(HeronTableTest, ClientsOfOneTypeAreBlankSeparatedWithoutTrailingBlank) {
  HeronTable table("t");
  table.clients.at(Heron::Shadow).emplace_back(12, "cat");
  table.clients.at(Heron::Shadow).back().command = "cat";
  table.clients.at(Heron::Shadow).emplace_back(40, "bash");
  table.clients.at(Heron::Shadow).back().command = "sh";
  EXPECT_EQ(table.printClients(Heron::Shadow), "cat-12(cat) sh-40(bash)");
  EXPECT_EQ(table.printClients(Heron::Writer), "");
}

TEST(HeronTableTest, EmptyCommandPrintsLeadingDash) {
  HeronTable table("t");
  table.clients.at(Heron::Writer).emplace_back(4711, "feed");
  EXPECT_EQ(table.printClients(Heron::Writer), "-4711(feed)");
}

TEST(HeronTableTest, MissingTypeThrowsOutOfRange) {
  HeronTable table("t");
  EXPECT_THROW(table.printClients(static_cast<Heron::HeronType>(5)), std::out_of_range);
  table.clients.erase(Heron::Shadow);
  EXPECT_THROW(table.sortClients(), std::out_of_range);
}

TEST(HeronTableTest, SortingKeepsClientsWithEqualPid) {
  HeronTable table("t");
  auto& shadows = table.clients.at(Heron::Shadow);
  shadows.emplace_back(30, "c");
  shadows.emplace_back(12, "a");
  shadows.emplace_back(12, "b");
  table.sortClients();
  ASSERT_EQ(shadows.size(), 3U);
  EXPECT_EQ(shadows[0].pid, 12);
  EXPECT_EQ(shadows[1].pid, 12);
  EXPECT_EQ(shadows[2].pid, 30);
}

TEST(HeronTableTest, SecondTableOfSameNameLeavesFirstInSet) {
  std::set<HeronTable> tables;
  HeronTable first("orders");
  first.headerInfo.numRegions = 1;
  HeronTable second("orders");
  second.headerInfo.numRegions = 2;
  tables.insert(first);
  EXPECT_FALSE(tables.insert(second).second);
  ASSERT_EQ(tables.size(), 1U);
  EXPECT_EQ(tables.begin()->headerInfo.numRegions, 1U);
}

TEST(HeronTableTest, TablesAreOrderedByName) {
  std::set<HeronTable> tables{HeronTable("b"), HeronTable("a/x"), HeronTable("B")};
  std::vector<std::string> names;
  for (const HeronTable& table : tables) {
    names.push_back(table.name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"B", "a/x", "b"}));
}

TEST(HeronClientTest, OrderedByPidOnly) {
  EXPECT_TRUE(HeronClient(1, "z") < HeronClient(2, "a"));
  EXPECT_FALSE(HeronClient(2, "a") < HeronClient(2, "b"));
  EXPECT_TRUE(HeronClient(-1, "a") < HeronClient(0, "a"));
}

// Table, command and process names come from other processes and from the
// file system: a control character in them never reaches the terminal.
TEST(HeronTableTest, NamesWithControlCharactersPrintEscaped) {
  HeronTable table("t\x1b[2J");
  table.clients.at(Heron::Writer).emplace_back(100, "fe\ned");
  table.clients.at(Heron::Writer).back().command = "\x1b]0;pwned\x07";
  EXPECT_EQ(table.print(),
            std::string("Heron table \"t\\x1b[2J\"\n") + kNoHeader + "Writer: \\x1b]0;pwned\\x07-100(fe\\ned)\n\n");
}

}  // namespace
