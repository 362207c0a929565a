#include "runtime/trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <string>

#include "runtime/files.h"
#include "runtime/settings.h"
#include "runtime/sync.h"
#include "runtime/text.h"
#include "tests/support/environment.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace {
std::atomic<std::int64_t> clockShift = 0;  // seconds
}  // namespace

// The wall clock of this program can be moved on.
extern "C" int gettimeofday(timeval* __restrict now, void* __restrict /*zone*/) noexcept {
  timespec real = {};
  ::clock_gettime(CLOCK_REALTIME, &real);
  *now = {real.tv_sec + clockShift, real.tv_nsec / 1000};
  return 0;
}
extern "C" time_t time(time_t* result) noexcept {
  timeval now = {};
  ::gettimeofday(&now, nullptr);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}

namespace qixx {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::MatchesRegex;
namespace fs = std::filesystem;

constexpr std::int64_t kHour = 3600;

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override { InitProductIdentity(); }
  void TearDown() override {
    SetRuntimeSettings(nullptr);
    TraceSetCallback(nullptr);
    TraceSetFile(nullptr);
    // A whole number of days on: the next case finds the size check due and the stamp at zero.
    clockShift = (clockShift / (24 * kHour) + 2) * (24 * kHour);
  }
  void SetFile(const std::string& name) const { TraceSetFile(folder_.Path(name).c_str()); }
  testing::TemporaryFolder folder_;
};

TEST_F(TraceTest, WritesDateLineAndStampedLines) {
  SetFile("a.log");
  clockShift += 25 * kHour;
  errno = 77;
  TraceWrite("Watch - Slot %d", 3);
  EXPECT_EQ(errno, 77);
  EXPECT_THAT(folder_.Read("a.log"),
              MatchesRegex("\\[[0-9]{4,}:[0-9a-f]{8}\\] 00\\.[0-9.]{9} Trace - Date "
                           "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}, '[^']*a.log'\n"
                           "\\[[^]]+\\] 01\\.[0-9.]{9} Watch - Slot 3\n"));
  EXPECT_EQ(fs::status(folder_.Path("a.log")).permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  fs::remove(folder_.Path("a.log"));
  TraceWrite("again");
  EXPECT_THAT(folder_.Read("a.log"), EndsWith(" again\n"));
}

TEST_F(TraceTest, ChecksTargetNames) {
  const std::string longest = folder_.Path() + std::string(255 - folder_.Path().size() - 5, '/');
  struct Row {
    const char* name;
    std::string target;
    bool accepted;
  };
  const Row rows[] = {
      {"upper case", folder_.Path("a.LOG"), true},
      {"other extension", folder_.Path("a.dat"), false},
      {"extension of a folder", folder_.Path("a.log/b"), false},
      {"255 characters", longest + "a.txt", true},
      {"256 characters", longest + "ab.txt", false},
      {"server behind a name without comma", "Server,/x.dat", true},
      {"server behind a comma with another extension", "server2", false},
  };
  SetFile("previous.txt");
  testing::TraceCapture trace;
  for (const Row& row : rows) {
    trace.Clear();
    TraceSetFile(row.target.c_str());
    const std::vector<std::string> lines = trace.Lines();
    ASSERT_EQ(lines.size(), row.target.size() < 256 ? 1u : 0u) << row.name;
    EXPECT_EQ(!lines.empty() && lines[0].ends_with(", '" + row.target + "'"), row.accepted)
        << row.name;
  }
}

TEST_F(TraceTest, FormatsArguments) {
  static const char* volatile null = nullptr;
  struct Row {
    const char* line;
    std::function<void()> write;
  };
  const Row rows[] = {
      {"-1 2 0X1F a %", [] { TraceWrite("%d %u %#X %c %%", -1, 2u, 31u, 'a'); }},
      {"-1 18446744073709551615 -9223372036854775808",
       [] {
         TraceWrite("%hhd %zu %lld", static_cast<signed char>(-1), ~std::size_t{0}, LLONG_MIN);
       }},
      {"[   ab|ab   |a|007|ab]",
       [] { TraceWrite("[%5s|%*s|%.*s|%.3d|%.*s]", "ab", -5, "ab", 1, "ab", 7, -1, "ab"); }},
      {"[null] '(null)'", [] { TraceWrite("%s '%2s'", null, null); }},
      {"1234567890", [] { TraceWrite("%d%d%d%d%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 0); }},
      {"123456789  0 1%",
       [] { TraceWrite("%d%d%d%d%d%d%d%d%d%*d %d%%", 1, 2, 3, 4, 5, 6, 7, 8, 9, 3, 0, 1); }},
      {"12345678a (null)",
       [] { TraceWrite("%d%d%d%d%d%d%d%d%.*s %s", 1, 2, 3, 4, 5, 6, 7, 8, 1, "ab", null); }},
      {"1 %f %d", [] { TraceWrite("%d %f %d", 1, 2.0, 3); }},
  };
  testing::TraceCapture trace;
  for (const Row& row : rows) {
    trace.Clear();
    row.write();
    EXPECT_THAT(trace.Lines(), ElementsAre(row.line));
  }
}

TEST_F(TraceTest, CutsWhatIsTooLong) {
  static std::string last;
  TraceSetCallback([](const char* line, std::size_t length) { last.assign(line, length); });
  TraceWrite("%s", std::string(20'000, 'x').c_str());
  EXPECT_EQ(last, std::string(kTraceLineSize - 2, 'x') + '\n');
  TraceWrite("%*d", 2'000'000'000, 1);
  EXPECT_EQ(last.size(), kTraceLineSize - 1);
#define THIRTY "012345678901234567890123456789"
  TraceWrite(THIRTY THIRTY THIRTY THIRTY "01234%d", 7);
#undef THIRTY
  EXPECT_THAT(last, EndsWith("901234%\n")) << "126 characters, the directive is cut";
  TraceWrite("%d%d%d%d%d%d%d%d%d%d%%", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
  EXPECT_EQ(last, "INTERNAL PROBLEM, TOO MANY ARGUMENTS") << "no line end, as intended";
}

TEST_F(TraceTest, EmptiesALargeTargetOnceAnHour) {
  constexpr std::uintmax_t kLimit = 104'857'600;
  const std::string file = folder_.Write("a.log", "");
  fs::resize_file(file, kLimit);
  SetFile("a.log");
  clockShift += kHour - 60;
  TraceWrite("not yet");
  EXPECT_GT(fs::file_size(file), kLimit) << "kept at the limit itself, and within the hour";
  clockShift += 120;
  TraceWrite("due");
  EXPECT_THAT(folder_.Read("a.log"), MatchesRegex("\\[[^\n]* due\n"));
}

TEST_F(TraceTest, CallModeLetsOneLinePass) {
  TraceSetCallTarget(folder_.Path("any.name").c_str(), 0);
  TraceWrite("lost");
  TraceReleaseOneLine();
  TraceReleaseOneLine();
  TraceWrite("passed");
  TraceWrite("lost");
  EXPECT_THAT(folder_.Read("any.name"), MatchesRegex("\\[[^\n]* passed\n"));
  TraceSetCallTarget(nullptr, 0);
  EXPECT_FALSE(TraceIsOn());
  SetFile("b.log");
  TraceReleaseOneLine();
  TraceWrite("one");
  TraceWrite("two");
  EXPECT_THAT(folder_.Read("b.log"), EndsWith(" two\n")) << "nothing to release any more";
}

TEST_F(TraceTest, KeepsToRegularFiles) {
  ASSERT_EQ(::mkfifo(folder_.Path("pipe.log").c_str(), 0600), 0);
  SetFile("pipe.log");  // must not block
  fs::create_directory(folder_.Path("folder.log"));
  SetFile("folder.log");

  const std::uint8_t data[] = {'d', 0, 'a'};
  folder_.Write("~qixdata.cer", "older and longer");
  folder_.Write("kept", "kept");
  fs::create_symlink(folder_.Path("kept"), folder_.Path("~qixlink"));
  TraceDump("data.cer", data);
  TraceDump("link", data);
  EXPECT_EQ(folder_.Read("~qixdata.cer"), std::string("d\0a", 3));
  EXPECT_EQ(folder_.Read("kept"), "kept");

  const testing::ScopedVariable temporary("TEMP", folder_.Path().c_str());
  TraceSetCallTarget("bare.log", 1);
  TraceDump("bare", data);
  TraceDump("late", data);
  EXPECT_TRUE(fs::exists(folder_.Path("~qixbare")));
  EXPECT_FALSE(fs::exists(folder_.Path("~qixlate"))) << "the release is used up";
}

/// Entries by "section:entry".
class FixedSettings : public RuntimeSettings {
 public:
  std::map<std::string, std::string> entries;
  bool Open(SettingsScope scope) override { return scope == SettingsScope::kUserThenSystem; }
  bool GetText(const char* section, const char* entry, std::span<char> value) override {
    const auto found = entries.find(std::string(section) + ":" + entry);
    CopyTextCut(value, found == entries.end() ? "" : found->second);
    return found != entries.end();
  }
  bool GetBoolean(const char*, const char*, bool&) override { return false; }
  void Close() override {}
};

TEST_F(TraceTest, ReadsItsSettings) {
  struct Row {
    std::map<std::string, std::string> entries;
    std::string path;
    bool callMode;
  };
  const Row rows[] = {
      {{}, "", false},
      {{{"Trace:watch", "w"}, {"Trace:File", "f"}}, "w", false},
      {{{"Trace:File", "f"}, {"Trace Call:watch", "c"}}, "f", false},
      {{{"Trace:watch", ""}, {"Trace:File", "f"}}, "", false},
      {{{"Trace:watch", ""}, {"Trace:File", "f"}, {"Trace Call:watch", "c"}}, "c", true},
  };
  FixedSettings settings;
  SetRuntimeSettings(&settings);
  for (const Row& row : rows) {
    settings.entries = row.entries;
    char path[kTextSize] = "before";
    bool callMode = true;
    EXPECT_EQ(TraceReadSettings("watch", path, &callMode), !row.path.empty());
    EXPECT_EQ(path, row.path);
    EXPECT_EQ(callMode, row.callMode);
  }
  TraceInit("other");
  EXPECT_FALSE(TraceIsOn()) << "\"File\" names no trace file";
  settings.entries = {{"Trace Call:watch", folder_.Path("c")}};
  TraceInit("watch");
  TraceWrite("lost");
  EXPECT_TRUE(TraceIsOn() && !fs::exists(folder_.Path("c")));
}

TEST_F(TraceTest, ThreadsWriteWholeLines) {
  SetFile("a.log");
  static std::atomic<int> running;
  running = 4;
  for (int i = 0; i < 4; ++i) {
    ASSERT_NE(ThreadCreate(
                  [](void*) -> void* {
                    ThreadDetachSelf();
                    for (int line = 0; line < 200; ++line) TraceWrite("%0200d", line);
                    --running;
                    return nullptr;
                  },
                  nullptr),
              0u);
  }
  ASSERT_TRUE(testing::Eventually([] { return running == 0; }));
  std::istringstream lines(folder_.Read("a.log"));
  std::string line;
  std::getline(lines, line);  // the date
  int count = 0;
  for (; std::getline(lines, line); ++count) {
    EXPECT_EQ(line.rfind(' '), line.size() - 201) << line;
    EXPECT_EQ(line.find_first_not_of("0123456789", line.size() - 200), std::string::npos) << line;
  }
  EXPECT_EQ(count, 800);
}

TEST_F(TraceTest, CallbackMayTraceAndClear) {
  SetFile("a.log");
  TraceSetCallback([](const char*, std::size_t) {
    TraceSetCallback(nullptr);
    TraceWrite("nested");
    TraceSetFile(nullptr);
  });
  TraceWrite("outer");
  EXPECT_FALSE(TraceIsOn());
  EXPECT_THAT(folder_.Read("a.log"), MatchesRegex("\\[.*\nouter\n\\[[^\n]* nested\n"));
}

}  // namespace
}  // namespace qixx
