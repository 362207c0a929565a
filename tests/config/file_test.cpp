// Opening, reading, changing and saving one file, and the cache of lookup trees.
#include "config/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tuple>

#include "runtime/text.h"
#include "tests/support/failing_memory.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

using namespace std::string_literals;
using config::ConfigResult;

/// A row of a table: its name, a text before something is done to it and after.
using TextCase = std::tuple<const char*, std::string, std::string>;

/// Holds a text without any file.
class LoadedFile : public config::CConfigFile {
 public:
  explicit LoadedFile(std::string_view text) { EXPECT_EQ(LoadText(text), ConfigResult::kOk); }
};

/// The value, or its result code in brackets.
std::string ValueIn(config::CConfigItem& item, std::string_view section, std::string_view entry) {
  const auto [result, value] = item.GetValue(section, entry);
  if (result == ConfigResult::kOk) return std::string(value);
  if (result == ConfigResult::kFailed) return "(6)";
  return result == ConfigResult::kNoSection ? "(no section)" : "(no entry)";
}

template <typename Change>
void Check(Change change, const std::vector<TextCase>& cases) {
  for (const auto& [name, before, after] : cases) {
    LoadedFile file(before);
    change(file);
    EXPECT_EQ(file.GetText(), after) << name;
  }
}

TEST(ConfigText, IsCleanedOnLoad) {
  Check(
      [](auto&) {},
      {{"all leading high bytes", "\xFF\xFE\x80\xC3[A]\n\xC3\xA4=1\n", "[A]\n\xC3\xA4=1\n"},
       {"zero bytes at the end", "[A]\n\0\0\0"s, "[A]\n"},
       {"UTF-16", "\xFF\xFE[\0A\0]\0\n\0\xE4\0=\0\x31\0"s, "[A]\n\xC3\xA4=1"},
       {"old name beside its new one", "[Soft Tokens]\n;SoftToken", "[Soft Tokens]\n;SoftToken"}});
}

TEST(ConfigLookup, ScanAndTreeHaveTheirOwnRules) {
  const TemporaryFolder folder;
  const std::string text =
      "Two=0\n[First] text\r\nName=  one   \nname=last\nBlank =1\n"
      "#Hash=1\n  Indented=yes\nTwo=a=b\rCr=1\nno equals\n"
      "<Block = \n[Hidden]\nInside=1\n/>Rest=1\n[open\nStill=1\n"
      "[Twice]\nE=1\n[TWICE]\nE=2\n";
  LoadedFile scanned(text);
  config::CConfigFile parsed;
  parsed.Open(false, folder.Write("a.conf", text), true);
  const auto both = [&](std::string_view section, std::string_view entry) {
    return ValueIn(scanned, section, entry) + " / " + ValueIn(parsed, section, entry);
  };
  EXPECT_EQ(both("FIRST", "NAME"), "  one / last");
  EXPECT_EQ(both("First", "Blank"), "(no entry) / (6)");
  EXPECT_EQ(both("First", "#Hash"), "(no entry) / 1");
  EXPECT_EQ(both("First", "Indented"), "yes / (6)");
  EXPECT_EQ(both("First", "Two"), "a=b / a=b");  // its line ends at a CR
  EXPECT_EQ(both("First", "Rest"), "(no entry) / (6)");
  EXPECT_EQ(both("First", "Still"), "(no entry) / 1");  // behind the block and "[open"
  EXPECT_FALSE(scanned.SectionExists("First"));         // not alone in its line

  // A change is visible at once, and from then on the text is scanned.
  EXPECT_EQ(both("Twice", "E"), "1 / 2");
  EXPECT_EQ(parsed.SetValue("Twice", "E", "3"), ConfigResult::kOk);
  EXPECT_EQ(both("Twice", "E"), "1 / 3");
}

TEST(ConfigLookup, CutsOverlongLines) {
  LoadedFile file("[A]\nLong=" + std::string(config::kMaxConfigLine, 'x') + "[B]\nE=2\n");
  EXPECT_EQ(ValueIn(file, "A", "Long").size(), config::kMaxConfigLine - 5);
  EXPECT_EQ(ValueIn(file, "A", "E"), "2");
}

TEST(ConfigEnumeration, YieldsNamesInOrder) {
  LoadedFile file(
      "lost=1\n[A] x\na=1\n;c=1\n#h=1\nno equals\n<B = \nQQ==\n[not]\n/>\nbehind=1\n"
      "[]\nlost=2\n[C]\nc=1\nc=2\n<B2 = \n/>\nd=1\n[C]\ne=1\n");
  std::string all;
  for (std::size_t index = 0; const auto found = file.EnumEntries(index);) {
    all += found->section + "." + found->entry + "|";
  }
  EXPECT_EQ(all, "A.a|A.no equals|A.behind|C.c|C.c|C.d|C.e|");
}

std::string BlockIn(config::CConfigFile& file, std::string_view name) {
  const auto data = file.GetBlock(name);
  return data ? std::string(runtime::AsText(*data)) : "(none)";
}

TEST(ConfigBlocks, AreFoundByName) {
  LoadedFile file(
      "[A]\nx=<Fake = QQ==/>\n<Empty = \n/>\n< sPaced =\nQU\nJD/>\n  <Same=RA==/>\n<Open = QQ==");
  EXPECT_EQ(BlockIn(file, "Spaced") + BlockIn(file, "Same"), "ABCD");
  EXPECT_EQ(BlockIn(file, "Fake"), "A") << "though it stands in an entry";
  for (const char* const none : {"Empty", "Sam", "", "Open"}) {
    EXPECT_EQ(BlockIn(file, none), "(none)") << none;
  }
}

TEST(ConfigChange, SetsAndAddsValues) {
  Check([](auto& file) { EXPECT_EQ(file.SetValue("S", "E", "v"), ConfigResult::kOk); },
        {{"section in a block", "<B = \n[S]\nE=1\n/>\n", "<B = \n[S]\nE=1\n/>\n\n[S]\nE=v\n"},
         {"behind a whole CR LF", "[S]\r\nx=1\r\n\r\n[A]", "[S]\r\nx=1\r\nE=v\n\r\n[A]"},
         {"in place of a line behind one", "[S]\nx=1\re=2\n", "[S]\nx=1\r\nE=v\n"},
         {"whole line with its end", "[S]\r\n  e=old\r\nb=2", "[S]\r\nE=v\nb=2"},
         {"first of two", "[S]\na=1\nE=1\nE=2\n[S]\nE=3", "[S]\na=1\nE=v\nE=2\n[S]\nE=3"}});
}

TEST(ConfigChange, WritesNothingThatReadsAsSomethingElse) {
  LoadedFile file("");
  EXPECT_EQ(file.SetValue("S\n", "E\r", {}), ConfigResult::kOk);
  EXPECT_EQ(file.SetValue("S\n", "F", "a\r\n[X]\0b"s), ConfigResult::kOk);
  const std::string longer(config::kGrowthStep, 'x');
  EXPECT_EQ(file.SetValue("L", "E", longer), ConfigResult::kOk);
  for (const std::string& name : {""s, " E"s, "\nE"s, "[E"s, "<E"s, ";E"s, "#E"s, longer}) {
    EXPECT_EQ(file.SetValue("L", name, "v"), ConfigResult::kFailed) << name;
  }
  EXPECT_EQ(file.GetText(), "\n[S ]\nE =\nF=a  [X]\n\n[L]\nE=" + longer.substr(8) + "\n");
}

TEST(ConfigChange, RenamesSections) {
  Check([](auto& file) { EXPECT_EQ(file.RenameSection("Old", "New"), ConfigResult::kOk); },
        {{"every header", "[Old] x\na=[Old]\n  [Old]\n<B = \n[Old]\n/>",
          "[New] x\na=[Old]\n  [New]\n<B = \n[Old]\n/>"},
         {"values of the target win",
          "[Old]\nb=old\nB=older\n\n[New]\nB=new\n;c\nb=newer\nc=3\nd\nf\nF=6\n[X]\n",
          "[New]\nB=new\nB=older\nc=3\nd=\nf=6\n\n[X]\n"},
         {"CR LF", "[Old]\r\na=1\r\n[New]\r\nb=2\r\n", "[New]\r\na=1\r\nb=2\n"}});
}

TEST(ConfigChange, SpareOnesKeepLinesAndDoNotTraceThatTheTextGrows) {
  const auto deleteAndSet = [](auto& file) {
    EXPECT_EQ(file.Delete("A", {}), ConfigResult::kOk);
    EXPECT_EQ(file.SetValue("S", "F", "v"), ConfigResult::kOk);
  };
  Check(deleteAndSet, {{"CR LF", "[B]\r\ny=2\r\n[S]\r\nE=1\r\n[A]\r\nx=1\r\n[C]\r\n",
                        "[B]\r\ny=2\r\n[S]\r\nE=1\r\nF=v\n[C]\r\n"}});
  LoadedFile file("[b]\n[A]\n");
  const TraceCapture trace;
  file.Sort();
  EXPECT_EQ(file.SetBlock("L", std::vector<std::uint8_t>(5000)), ConfigResult::kOk);
  EXPECT_EQ(trace.Lines(), std::vector<std::string>{}) << "only setting a value and renaming do";
}

class ConfigSaving : public ::testing::Test {
 protected:
  void Open(const std::string& content) {
    folder_.Write("a.conf", content);
    EXPECT_EQ(file_.Open(true, path_, false), ConfigResult::kOk);
  }
  void Set() { EXPECT_EQ(file_.SetValue("S", "E", "v"), ConfigResult::kOk); }

  TemporaryFolder folder_;
  const std::string path_ = folder_.Path("a.conf");
  config::CConfigFile file_;
};

TEST_F(ConfigSaving, TidiesTheText) {
  const std::string comment(config::kGrowthStep - 8, ';');
  const TextCase cases[] = {
      {"empty lines", "[S]\r\nE=1\r\n\r\n\r\n\r\n\r\n[T]\r\n", "[S]\nE=v\n\n[T]\n"},
      {"a full growth step", "[S]\nE=1\n" + comment, "[S]\nE=v\n" + comment},
      {"every line of a merged text with CR LF",
       "[S]\r\nE=1\r\n[Soft Tokens]\r\n[Smart Card]\r\nT=30\r\n[SmartCard]\r\nR=5\r\n",
       "[S]\nE=v\n[SoftToken]\n[SmartCard]\nT=30\nR=5\n"},
      {"images that move",
       "[S]\r\nE=1\r\n[Soft Tokens]\r\n[CredentialProvider]\r\nBMP1=a\r\nF=2\r\n[Dialog "
       "Presentation]\r\nG=3\r\n",
       "[S]\nE=v\n[SoftToken]\n[CredentialProvider]\nF=2\n[Dialog Presentation]\nG=3\nBMP1=a\n"},
      {"a lone last CR", "[S]\nx=1\r", "[S]\nx=1\nE=v\n"}};
  for (const auto& [name, before, after] : cases) {
    Open(before);
    Set();
    EXPECT_EQ(file_.Close(false), ConfigResult::kOk);
    EXPECT_EQ(folder_.Read("a.conf"), after) << name;
  }
}

TEST_F(ConfigSaving, LeavesAnUnchangedOrReadOnlyFileAlone) {
  const std::string content = "\xEF\xBB\xBF[S]\r\n\r\n\r\n\r\n\r\n";
  Open(content);
  file_.Open(false, file_.GetPath(), false);
  EXPECT_FALSE(file_.IsOpen());
  Set();
  EXPECT_EQ(file_.Close(true), ConfigResult::kOk);
  EXPECT_EQ(folder_.Read("a.conf"), content);
}

TEST_F(ConfigSaving, WhatCannotBeReadIsNeverWritten) {
  const std::string content = "[S]\nE=1\n";
  for (const char* const name : {"a.EDB", "twice.conf"}) folder_.Write(name, content);
  const std::string pipe = folder_.Path("pipe.conf");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::filesystem::resize_file(folder_.Write("large.conf", "[S]\n"), config::kMaxConfigSize + 1);
  std::filesystem::create_hard_link(folder_.Path("twice.conf"), folder_.Path("b"));
  for (const std::string& path : {pipe, folder_.Path("large.conf"), folder_.Path(), ""s,
                                  folder_.Path("twice.conf"), folder_.Path("a.EDB")}) {
    EXPECT_EQ(file_.Open(true, path, true), ConfigResult::kOk);
    EXPECT_EQ(file_.GetText(), "") << path;
    Set();
    EXPECT_EQ(file_.Close(true), ConfigResult::kFailed) << path;
  }
  for (const char* name : {"a.EDB", "twice.conf"}) EXPECT_EQ(folder_.Read(name), content);
}

TEST(ConfigMemory, HalfReadOrHalfChangedTextIsNeverWritten) {
  const TemporaryFolder folder;
  // Opening migrates the text, so it is changed already when memory runs out on the way.
  const std::string old = "[Soft Tokens]\r\n1=a\r\n[Packages]\n";
  const std::string migrated = "[SoftToken]\n1=a\n[Install Packages]\n";
  const std::string section = "A name that is too long for a string without an allocation";
  const std::string texts[] = {old, migrated, migrated + "\n[" + section + "]\nE=v\n"};
  std::size_t done = 0;
  for (int count = 0; done < 2; ++count) {
    const std::string path = folder.Write("a.conf", old);
    done = 0;
    {
      config::CConfigFile file;
      allocationsLeft = count;
      try {
        file.Open(true, path, true);
        ++done;
        file.SetValue(section, "E", "v");
        ++done;
      } catch (const std::bad_alloc&) {
      }
      allocationsLeft = -1;
    }
    ASSERT_EQ(folder.Read("a.conf"), texts[done]) << count;
  }
}

}  // namespace
}  // namespace qixx::testing
