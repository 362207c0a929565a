// How a text is cleaned on load and read by the scan and by the lookup tree.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "config/file.h"
#include "config/tree.h"
#include "tests/config/loaded_file.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

using namespace std::string_literals;

TEST(ConfigText, IsCleanedOnLoad) {
  const TextCase cases[] = {
      {"all leading high bytes", "\xFF\xFE\x80\xC3[A]\n\xC3\xA4=1\n", "[A]\n\xC3\xA4=1\n"},
      {"zero bytes at the end", "[A]\n\0\0\0"s, "[A]\n"},
      {"UTF-16", "\xFF\xFE[\0A\0]\0\n\0\xE4\0=\0\x31\0"s, "[A]\n\xC3\xA4=1"},
      {"zero characters in UTF-16", "a\0\0\0b\0"s, "a.b"},
      {"CR only", "[A]\rE=1\r", "[A]\nE=1\n"},
      {"old name", "[Soft Tokens]\nE=1\n", "[SoftToken]\nE=1\n"},
      {"old name beside its new one", "[Soft Tokens]\n;SoftToken", "[Soft Tokens]\n;SoftToken"},
      {"old name in other letters", "[soft tokens]\n", "[soft tokens]\n"}};
  for (const TextCase& c : cases) EXPECT_EQ(TextIn(LoadedFile(c.before)), c.after) << c.name;
}

TEST(ConfigText, IsTakenUpToItsLimit) {
  const std::string text(kMaximumLoadedText + 1, ';');
  CConfigFile file;
  EXPECT_EQ(file.LoadText(text.data(), text.size()), kConfigFailed);
  EXPECT_EQ(ValueIn(file, "A", "E"), "(6)");
  EXPECT_EQ(file.LoadText(text.data(), text.size() - 1), kConfigOk);
}

TEST(ConfigLookup, ScanAndTreeHaveTheirOwnRules) {
  const TemporaryFolder folder;
  const std::string text =
      "before=1\n[First] text\r\nName=  one   \nname=last\nBlank =1\n"
      "#Hash=1\n//Slash=1\n  Indented=yes\n\tTab=1\nTwo=a=b\rCr=1\nno equals\n"
      "<Block = \n[Hidden]\nInside=1\n/>Rest=1\nBehind=1\n[open\nStill=1\n"
      "[Twice]\nE=1\nF=1\n[TWICE]\nE=2\n";
  LoadedFile scanned(text);
  CConfigFile parsed;
  parsed.Open(false, folder.Write("a.conf", text).c_str(), true);
  const auto both = [&](const char* section, const char* entry) {
    return ValueIn(scanned, section, entry) + " / " + ValueIn(parsed, section, entry);
  };
  EXPECT_EQ(both("FIRST", "NAME"), "  one / last");
  EXPECT_EQ(both("First", "before"), "(no entry) / (6)");
  EXPECT_EQ(both("First", "Blank"), "(no entry) / (6)");
  EXPECT_EQ(both("First", "#Hash"), "(no entry) / 1");
  EXPECT_EQ(both("First", "//Slash"), "1 / (6)");
  EXPECT_EQ(both("First", "Indented"), "yes / (6)");
  EXPECT_EQ(both("First", "Tab"), "(no entry) / (6)");
  EXPECT_EQ(both("First", "Two"), "a=b / a=b");  // its line ends at a CR
  EXPECT_EQ(both("First", "Rest"), "(no entry) / (6)");
  EXPECT_EQ(both("First", "Behind"), "(no entry) / 1");
  EXPECT_EQ(both("First", "Still"), "(no entry) / 1");
  EXPECT_EQ(both("First] text", "Name"), "(no section) / (6)");
  EXPECT_EQ(both("Hidden", "Inside"), "(no section) / (6)");
  EXPECT_EQ(both("Twice", "E"), "1 / 2");
  EXPECT_EQ(both("Twice", "F"), "1 / (6)");
  EXPECT_FALSE(scanned.SectionExists("First"));  // not alone in its line
  EXPECT_TRUE(scanned.SectionExists("twice"));

  // A change is visible at once, and from then on the text is scanned.
  EXPECT_EQ(parsed.SetValue("Twice", "E", "3", false), kConfigOk);
  EXPECT_EQ(both("Twice", "E"), "1 / 3");
  EXPECT_EQ(both("Twice", "G"), "(no entry) / (no entry)");
}

TEST(ConfigLookup, CutsOverlongLines) {
  LoadedFile file("[A]\nLong=" + std::string(kMaximumLine, 'x') + "[B]\nE=2\n[B]\nE=1\n");
  std::string value(2 * kMaximumLine, '\0');
  EXPECT_EQ(file.GetValue("A", "Long", value, false), kConfigOk);
  EXPECT_EQ(value.find('\0'), kMaximumLine - 5);
  EXPECT_EQ(ValueIn(file, "A", "E"), "2");
  EXPECT_EQ(ValueIn(file, "B", "E"), "1");
}

TEST(ConfigEnumeration, YieldsNamesInOrder) {
  LoadedFile file(
      "lost=1\n[A] x\na=1\n;c=1\n#h=1\nno equals\n<B = \nQQ==\n[not]\n/>\nbehind=1\n"
      "[]\nlost=2\n[C]\nc=1\nc=2\n<B2 = \n/>\nd=1\n[C]\ne=1\n");
  char section[kTextSize];
  char entry[kTextSize];
  std::string all;
  std::size_t index = 0;
  while (file.EnumEntries(section, entry, index) == kConfigOk) all += section + "."s + entry + "|";
  EXPECT_EQ(all, "A.a|A.no equals|A.behind|C.c|C.c|C.d|C.e|");
  EXPECT_EQ(index, 8U);  // the miss counts
  EXPECT_EQ(file.EnumEntries(section, entry, index = 3), kConfigOk);
  EXPECT_STREQ(section, "C");

  // The header must stand alone, and a block ends the section.
  EXPECT_EQ(file.EnumSectionEntries("A", entry, index = 0), kConfigFailed);
  all.clear();
  for (index = 0; file.EnumSectionEntries("c", entry, index) == kConfigOk;) all += entry + "|"s;
  for (index = 0; file.EnumBlocks(entry, index) == kConfigOk;) all += entry + "|"s;
  EXPECT_EQ(all, "c|c|B|B2|");
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
  EXPECT_EQ(BlockIn(file, "Spaced"), "ABC");
  EXPECT_EQ(BlockIn(file, "Outer"), "A");
  for (const char* name : {"Empty", "Fake", "Inner", "Oute", "Open", ""}) {
    EXPECT_EQ(BlockIn(file, name), "(none)") << name;
  }
}

TEST(ConfigBlocks, AreWrittenAndDeleted) {
  LoadedFile file("[A]\nE=1");
  const auto set = [&file](const char* name, const std::string& data) {
    return file.SetBlock(name, {reinterpret_cast<const std::uint8_t*>(data.data()), data.size()});
  };
  EXPECT_EQ(set("Key", "old"), kConfigOk);
  EXPECT_EQ(TextIn(file), "[A]\nE=1\n<Key = \nb2xk\n/>");
  const std::string twoLines(50, 'd');
  EXPECT_EQ(set("KEY", twoLines), kConfigOk);
  EXPECT_EQ(BlockIn(file, "key"), twoLines);
  EXPECT_EQ(file.DeleteBlock("Key"), kConfigOk);
  EXPECT_EQ(file.DeleteBlock("Key"), kConfigFailed);
  EXPECT_EQ(TextIn(file), "[A]\nE=1\n\n");
  EXPECT_EQ(set(nullptr, "[C]\0x"s), kConfigOk);
  EXPECT_EQ(TextIn(file), "[C].x");
}

TEST(TreeCache, SharesEqualTextsAndTakesTheOldestPlace) {
  TraceCapture trace;
  std::unique_ptr<const LookupTree> kept;
  {
    CConfigTree cache;
    kept.reset(cache.Attach("/a", "[A]\n"));
    EXPECT_EQ(cache.Attach("/a", "[A]\n"), kept.get());
    const LookupTree* const b = cache.Attach("/b", "[B]\n");
    cache.Release(b);
    cache.Release(cache.Attach("/c", "[C]\n"));
    // The oldest is the first; it is in use, so there is no place although two are free.
    EXPECT_EQ(cache.Attach("/d", "[D]\n"), nullptr);
    // The same bytes under another path are shared in the place that was chosen.
    EXPECT_EQ(cache.Attach("/d", "[A]\n"), kept.get());
    EXPECT_EQ(cache.Attach("/b", "[B]\n"), b);
    cache.Release(b);
    cache.Release(b);  // one too many
    const LookupTree* const other = cache.Attach("/b", "[other]\n");
    ASSERT_NE(other, nullptr);
    cache.Release(other);
    cache.Release(kept.get());
    cache.Release(kept.get());
    EXPECT_EQ(cache.Attach("/a", "[other]\n"), nullptr);  // one of three still reads it
  }
  EXPECT_EQ(trace.Count("Config - WARNING Tree cache in use"), 1U);
  EXPECT_EQ(kept->Text(), "[A]\n");
}

TEST(TreeCache, FilesLetGoOfTheirTree) {
  const TemporaryFolder folder;
  CConfigFile first;
  CConfigFile second;
  first.Open(false, folder.Write("a.conf", "[A]\nE=1\n").c_str(), true);
  first.Close(false);
  EXPECT_EQ(ValueIn(first, "A", "missing"), "(6)");  // the tree is kept
  second.Open(false, folder.Write("a.conf", "[A]\nE=2\n").c_str(), true);
  EXPECT_EQ(ValueIn(second, "A", "missing"), "(no entry)");  // the place is taken
  EXPECT_EQ(ValueIn(second, "A", "E"), "2");
  first.Close(true);
  second.Open(false, folder.Path("a.conf").c_str(), true);
  EXPECT_EQ(ValueIn(second, "A", "missing"), "(6)");
}

}  // namespace
}  // namespace qixx::testing
