// How a text is cleaned on load and read by the scan.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "config/file.h"
#include "tests/config/loaded_file.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

using namespace std::string_literals;

TEST(ConfigText, IsCleanedOnLoad) {
  const struct {
    const char* name;
    std::string loaded;
    std::string text;
  } cases[] = {{"byte order mark", "\xEF\xBB\xBF[A]\nE=1\n", "[A]\nE=1\n"},
               {"all leading high bytes", "\xFF\xFE\x80\xC3[A]\n\xC3\xA4=1\n", "[A]\n\xC3\xA4=1\n"},
               {"zero bytes at the end", "[A]\n\0\0\0"s, "[A]\n"},
               {"UTF-16 with mark", "\xFF\xFE[\0A\0]\0\n\0\xE4\0=\0\x31\0"s, "[A]\n\xC3\xA4=1"},
               {"UTF-16 without mark", "[\0A\0]\0"s, "[A]"},
               {"zero characters in UTF-16", "a\0\0\0b\0"s, "a.b"},
               {"CR only", "[A]\rE=1\r", "[A]\nE=1\n"},
               {"old name", "[Soft Tokens]\nE=1\n", "[SoftToken]\nE=1\n"},
               {"old name beside its new one anywhere", "[Soft Tokens]\n;SoftToken\n",
                "[Soft Tokens]\n;SoftToken\n"},
               {"old name in other letters", "[soft tokens]\n", "[soft tokens]\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(TextIn(LoadedFile(c.loaded)), c.text);
  }
}

TEST(ConfigText, IsTakenUpToItsLimit) {
  const std::string text(kMaximumLoadedText + 1, ';');
  CConfigFile file;
  EXPECT_EQ(file.LoadText(nullptr, 0), kConfigFailed);
  EXPECT_EQ(file.LoadText(text.data(), text.size()), kConfigFailed);
  EXPECT_EQ(ValueIn(file, "A", "E"), "(6)");
  EXPECT_EQ(file.LoadText(text.data(), text.size() - 1), kConfigOk);
  EXPECT_EQ(file.LoadText("", 0), kConfigOk);
  EXPECT_EQ(ValueIn(file, "A", "E"), "(no section)");
}

TEST(ConfigLookup, ScanAndTreeHaveTheirOwnRules) {
  const TemporaryFolder folder;
  const std::string text =
      "before=1\n[First] text\r\nName=  one   \nname=last\nBlank =1\n"
      "#Hash=1\n;Semi=1\n//Slash=1\n/One=1\n  Indented=yes\n\tTab=1\nTwo=a=b\rCr=1\nno equals\n"
      "<Block = \n[Hidden]\nInside=1\n/>Rest=1\nBehind=1\n[]\nAfter=1\n[open\nStill=1\n"
      "[Twice]\nE=1\nF=1\n[TWICE]\nE=2\n";
  LoadedFile scanned(text);
  CConfigFile parsed;
  parsed.Open(false, folder.Write("a.conf", text).c_str(), true);
  const struct {
    const char* section;
    const char* entry;
    const char* byScan;
    const char* byTree;
  } cases[] = {{"FIRST", "NAME", "  one", "last"},
               {"First", "Blank", "(no entry)", "(6)"},
               {"First", "Blank ", "1", "1"},
               {"First", "#Hash", "(no entry)", "1"},
               {"First", ";Semi", "(no entry)", "(6)"},
               {"First", "//Slash", "1", "(6)"},
               {"First", "/One", "1", "1"},
               {"First", "Indented", "yes", "(6)"},
               {"First", "Tab", "(no entry)", "(6)"},
               {"First", "\tTab", "1", "1"},
               {"First", "Two", "a=b", "a=b"},
               {"First", "Cr", "1", "1"},
               {"First", "Rest", "(no entry)", "(6)"},
               {"First", "Behind", "(no entry)", "1"},
               {"First", "After", "(no entry)", "1"},
               {"First", "Still", "(no entry)", "1"},
               {"First", "before", "(no entry)", "(6)"},
               {"First] text", "Name", "(no section)", "(6)"},
               {"Hidden", "Inside", "(no section)", "(6)"},
               {"open", "Still", "(no section)", "(6)"},
               {"Twice", "E", "1", "2"},
               {"Twice", "F", "1", "(6)"}};
  for (const auto& c : cases) {
    EXPECT_EQ(ValueIn(scanned, c.section, c.entry), c.byScan) << c.section << " / " << c.entry;
    EXPECT_EQ(ValueIn(parsed, c.section, c.entry), c.byTree) << c.section << " / " << c.entry;
  }
  char shorter[4];
  EXPECT_EQ(scanned.GetValue("Twice", nullptr, shorter, false), kConfigOk);
  EXPECT_EQ(parsed.GetValue("first", "indented", shorter, false), kConfigFailed);
  EXPECT_EQ(parsed.GetValue("first", "name", shorter, false), kConfigOk);
  EXPECT_STREQ(shorter, "las");
  EXPECT_FALSE(scanned.SectionExists("First"));  // not alone in its line
  EXPECT_TRUE(scanned.SectionExists("twice"));

  // A change is visible at once, and from then on the text is scanned.
  EXPECT_EQ(parsed.SetValue("Twice", "E", "3", false), kConfigOk);
  EXPECT_EQ(ValueIn(parsed, "Twice", "E"), "3");
  EXPECT_EQ(ValueIn(parsed, "Twice", "G"), "(no entry)");
}

TEST(ConfigScan, CutsOverlongLines) {
  LoadedFile file("[A]\nLong=" + std::string(kMaximumLine, 'x') + "[A2]\nE=2\n[B]\nE=1\n");
  std::string value(2 * kMaximumLine, '\0');
  EXPECT_EQ(file.GetValue("A", "Long", value, false), kConfigOk);
  EXPECT_EQ(value.find('\0'), kMaximumLine - 5);
  EXPECT_EQ(ValueIn(file, "A", "E"), "2");
  EXPECT_EQ(ValueIn(file, "B", "E"), "1");
}

TEST(ConfigEnumeration, YieldsEntriesInOrder) {
  LoadedFile file(
      "lost=1\n[A] x\na=1\n;c=1\n#h=1\nno equals\n<B = \nQQ==\n[not]\n/>\nbehind=1\n"
      "[]\nlost=2\n[C]\nc=1\nc=2\n<B2 = \n/>\nd=1\n[C]\ne=1\n");
  char section[kTextSize];
  char entry[kTextSize];
  std::string all;
  std::size_t index = 0;
  while (file.EnumEntries(section, entry, index) == kConfigOk) {
    all += section + "."s + entry + "|";
  }
  EXPECT_EQ(all, "A.a|A.no equals|A.behind|C.c|C.c|C.d|C.e|");
  EXPECT_EQ(index, 8U);
  EXPECT_EQ(file.EnumEntries(section, entry, index), kConfigFailed);
  EXPECT_EQ(index, 9U);
  index = 3;
  EXPECT_EQ(file.EnumEntries(section, entry, index), kConfigOk);
  EXPECT_STREQ(section, "C");

  // The header must stand alone, and a block ends the section.
  index = 0;
  EXPECT_EQ(file.EnumSectionEntries("A", entry, index), kConfigFailed);
  EXPECT_EQ(index, 1U);
  all.clear();
  for (index = 0; file.EnumSectionEntries("c", entry, index) == kConfigOk;) all += entry + "|"s;
  EXPECT_EQ(all, "c|c|");
  all.clear();
  for (index = 0; file.EnumBlocks(entry, index) == kConfigOk;) all += entry + "|"s;
  EXPECT_EQ(all, "B|B2|");
}

std::string BlockIn(CConfigFile& file, const char* name) {
  std::uint8_t* data = nullptr;
  std::size_t length = 0;
  if (file.GetBlock(name, data, length) != kConfigOk) return "(none)";
  const std::unique_ptr<std::uint8_t[]> owned(data);
  return {owned.get(), owned.get() + length};
}

TEST(ConfigBlocks, AreFoundByName) {
  LoadedFile file(
      "[A]\nx=<Fake = QQ==/>\n<Empty = \n/>\n< sPaced =\nQU\nJD/>\n"
      "<Outer = \nQQ==\n<Inner = QkI=\n/>\n<Open = QQ==");
  const struct {
    const char* name;
    const char* data;
  } cases[] = {{"Spaced", "ABC"}, {"Empty", "(none)"}, {"Fake", "(none)"}, {"Inner", "(none)"},
               {"Outer", "A"},    {"Oute", "(none)"},  {"Open", "(none)"}, {"", "(none)"}};
  for (const auto& c : cases) EXPECT_EQ(BlockIn(file, c.name), c.data) << c.name;
}

TEST(ConfigBlocks, AreWrittenAndDeleted) {
  LoadedFile file("[A]\nE=1");
  const std::string data(50, 'd');
  const auto bytes = [](const std::string& text) {
    return std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  };
  EXPECT_EQ(file.SetBlock("Key", bytes("old")), kConfigOk);
  EXPECT_EQ(TextIn(file), "[A]\nE=1\n<Key = \nb2xk\n/>");
  EXPECT_EQ(file.SetBlock("KEY", bytes(data)), kConfigOk);
  EXPECT_EQ(BlockIn(file, "key"), data);
  EXPECT_EQ(file.SetValue("B", "E", "2", false), kConfigOk);
  EXPECT_EQ(ValueIn(file, "B", "E"), "2");
  EXPECT_EQ(file.DeleteBlock("Key"), kConfigOk);
  EXPECT_EQ(file.DeleteBlock("Key"), kConfigFailed);
  EXPECT_EQ(TextIn(file), "[A]\nE=1\n\n\n[B]\nE=2\n");
  EXPECT_EQ(file.SetBlock(nullptr, bytes("[C]\0x"s)), kConfigOk);
  EXPECT_EQ(TextIn(file), "[C].x");
}

}  // namespace
}  // namespace qixx::testing
