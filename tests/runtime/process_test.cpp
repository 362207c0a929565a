#include "runtime/process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "runtime/children.h"
#include "runtime/trace.h"
#include "tests/runtime/installation.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"

namespace qixx {
namespace {

using ::testing::ElementsAre;
using testing::Eventually;
using ::testing::HasSubstr;
using testing::Installation;
using testing::TemporaryFolder;

/// Traces to a file, where the lines of children are found too.
class TraceFile {
 public:
  TraceFile() { TraceSetFile(folder_.Path("trace.log").c_str()); }
  ~TraceFile() { TraceSetFile(nullptr); }
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  [[nodiscard]] std::string Text() const { return folder_.Read("trace.log"); }
  /// The lines of this process or of all others, without header; the date line is left out.
  [[nodiscard]] std::vector<std::string> Lines(bool own) const {
    char head[16];
    std::snprintf(head, sizeof head, "[%.4d:", ::getpid());
    std::vector<std::string> lines;
    std::istringstream text(Text());
    for (std::string line; std::getline(text, line);) {
      const std::size_t begin = line.find("Helper - ");
      if (begin != std::string::npos && line.starts_with(head) == own) {
        lines.push_back(line.substr(begin));
      }
    }
    return lines;
  }
  /// The id in the last line about a fork.
  [[nodiscard]] std::uint64_t ChildId() const {
    const std::string text = Text();
    const std::string key = "Forked process id ";
    return std::stoull(text.substr(text.rfind(key) + key.size()));
  }

 private:
  TemporaryFolder folder_;
};

std::vector<std::string> Split(const char* program, const char* arguments) {
  std::size_t count = 99;
  char** vector = SplitArguments(program, arguments, count);
  std::vector<std::string> entries;
  for (char** entry = vector; entry != nullptr && *entry != nullptr; ++entry) {
    entries.emplace_back(*entry);
  }
  EXPECT_EQ(entries.size(), count);
  FreeArguments(vector);
  return entries;
}

TEST(SplitArguments, Tokens) {
  const struct {
    const char* name;
    const char* program;
    const char* arguments;
    std::vector<std::string> entries;
  } kRows[] = {
      {"blanks alone separate", "p", "  a\tb   c ", {"p", "a\tb", "c"}},
      {"quotes hold together", "p", "\"a b\" c", {"p", "a b", "c"}},
      {"five characters lose quotes", "p", "\"abc\"", {"p", "abc"}},
      {"four characters lose quotes", "p", "\"ab\"", {"p", "ab"}},
      {"three characters keep them", "p", "\"a\" \"\"", {"p", "\"a\"", "\"\""}},
      {"quoted option keeps them", "p", "\"-a b\"", {"p", "\"-a b\""}},
      {"no closing quote", "p", "\"ab c", {"p", "\"ab c"}},
      {"lonely quote", "p", "a \"", {"p", "a", "\""}},
      {"quote ends the token", "p", "\"ab\"c", {"p", "ab", "c"}},
      {"quote inside a token", "p", "a\"b c\"", {"p", "a\"b", "c\""}},
      {"no arguments", "p", nullptr, {"p"}},
      {"program from the text", nullptr, " \"my prog\" x", {"my prog", "x"}},
      {"empty program", "", "prog x", {"prog", "x"}},
      {"nothing at all", nullptr, "   ", {}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Split(row.program, row.arguments), row.entries);
  }
}

TEST(MaskSecrets, Options) {
  const struct {
    const char* name;
    const char* text;
    const char* masked;
  } kRows[] = {
      {"value", "-pin 1234 x", "-pin **** x"},
      {"capitals", "run -PIN 1234", "run -PIN ****"},
      {"every key", "-sopin 1 -puk 22 -pwd 3 -password 44", "-sopin * -puk ** -pwd * -password **"},
      {"longer option", "-pincode 12", "-pincode **"},
      {"quoted value", "-pin \"12 34\" x", "-pin \"*****\" x"},
      {"no closing quote", "-pin \"12 34", "-pin \"*****"},
      {"several blanks", "-pin   1234", "-pin   ****"},
      {"inside a word", "a-pin 1", "a-pin *"},
      {"behind an equals sign", "--pin=12 x y", "--pin=** * y"},
      {"a value that looks like an option", "-pin -pwd 12", "-pin **** **"},
      {"nothing behind it", "x -pin", "x -pin"},
      {"blanks behind it", "x -pin  ", "x -pin  "},
      {"no option", "pin 1234 -pi 5", "pin 1234 -pi 5"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    const std::unique_ptr<char[]> masked(MaskSecrets(row.text));
    EXPECT_STREQ(masked.get(), row.masked);
  }
  EXPECT_EQ(MaskSecrets(nullptr), nullptr);
}

TEST(LaunchProcess, RunsRedirectsAndTraces) {
  const TemporaryFolder folder;
  const TraceFile trace;
  const std::string arguments = "-pin 1234 \"-pin 56 7\" \"a  b\" > " + folder.Path("out");
  std::uint64_t id = 7;
  EXPECT_EQ(LaunchProcess("/bin/echo", arguments.c_str(), 60, true, &id), 1);
  EXPECT_EQ(id, 7U);
  EXPECT_EQ(folder.Read("out"), "-pin 1234 \"-pin 56 7\" a  b\n");
  const std::vector<std::string> lines = trace.Lines(true);
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0],
            "Helper - Start application: '/bin/echo' '-pin **** \"-pin ** 7\" \"a  b\" > " +
                folder.Path("out") + "'");
  EXPECT_EQ(lines[1], "Helper - Forked process id " + std::to_string(trace.ChildId()));
  EXPECT_EQ(lines.back(), "Helper - Child process finished");
  EXPECT_THAT(
      trace.Lines(false),
      ElementsAre("Helper - Child process started", "Helper - Argument 0: '/bin/echo'",
                  "Helper - Argument 1: '-pin'", "Helper - Argument 2: '****'",
                  "Helper - Argument 3: '\"-pin ** 7\"'", "Helper - Argument 4: 'a  b'",
                  "Helper - Argument 5: '>'", "Helper - Argument 6: '" + folder.Path("out") + "'"));
}

TEST(LaunchProcess, WhatCannotStartEndsQuietly) {
  const std::pair<const char*, const char*> kRows[] = {
      {"/missing", "-pin 1234"}, {"true", "is not searched in PATH"}, {nullptr, " "}};
  for (const auto& [program, arguments] : kRows) {
    SCOPED_TRACE(arguments);
    const TraceFile trace;
    EXPECT_EQ(LaunchProcess(program, arguments, kWaitNone, false, nullptr), 1);
    int status = -1;
    const auto child = static_cast<pid_t>(trace.ChildId());
    ASSERT_TRUE(Eventually([&] { return CheckChild(child, status) == child; }));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(trace.Lines(false).back(), "Helper - Child process done");
  }
}

TEST(LaunchProcess, PollsAChildThatStartsClean) {
  const TemporaryFolder folder;
  const TraceFile trace;
  const std::string gate = folder.Path("gate");  // "cat" waits for somebody who writes to it
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  const auto handler = ::signal(SIGPIPE, SIG_IGN);
  const int leaked = ::open("/dev/zero", O_RDONLY);  // deliberately without close-on-exec
  EXPECT_EQ(LaunchProcess("/bin/cat", (gate + " > /missing/out").c_str(), 1, false, nullptr), 1);
  ::close(leaked);
  ::signal(SIGPIPE, handler);

  const std::vector<std::string> lines = trace.Lines(true);
  ASSERT_EQ(lines.size(), 12U);
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(lines[2 + i], "Helper - Wait for process finished (" + std::to_string(10 - i) + ")");
  }
  const std::uint64_t child = trace.ChildId();
  const std::filesystem::path proc = "/proc/" + std::to_string(child);
  const std::string started = "/bin/cat" + ('\0' + gate) + '\0';
  ASSERT_TRUE(Eventually([&] { return TemporaryFolder::ReadFile(proc / "cmdline") == started; }));
  EXPECT_EQ(std::filesystem::read_symlink(proc / "fd/1"), "/dev/null");
  std::error_code closed;
  EXPECT_NE(std::filesystem::read_symlink(proc / "fd" / std::to_string(leaked), closed),
            "/dev/zero");
  EXPECT_EQ(::getsid(static_cast<pid_t>(child)), static_cast<pid_t>(child));
  const std::string status = TemporaryFolder::ReadFile(proc / "status");
  EXPECT_THAT(status, HasSubstr("SigBlk:\t0000000000000000"));
  const std::size_t ignored = status.find("SigIgn:") + sizeof "SigIgn:";
  EXPECT_EQ(std::stoull(status.substr(ignored), nullptr, 16) & 1U << (SIGPIPE - 1), 0U);

  EXPECT_TRUE(IsProcessRunning(child));
  EXPECT_FALSE(IsProcessRunning(child | std::uint64_t{1} << 32));
  EXPECT_FALSE(IsProcessRunning(0));
  ::close(::open(gate.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_TRUE(Eventually([&] { return !IsProcessRunning(child); }));
}

TEST(LaunchProcess, BesideThreadsThatTrace) {
  const TraceFile trace;
  std::atomic<bool> stop{false};
  std::thread tracer([&stop] {
    while (!stop) TraceWrite("Trace - Busy %d", 1);
  });
  for (int i = 0; i < 5; ++i) LaunchProcess("/bin/true", "x", kWaitNone, false, nullptr);
  stop = true;
  tracer.join();
  EXPECT_TRUE(Eventually([&] { return trace.Lines(false).size() == 15; }));
}

TEST(Children, KeepTheStatusForALaterQuestion) {
  const TraceFile trace;
  EXPECT_EQ(LaunchProcess("/bin/sh", "-c \"exit 3\"", kWaitNone, false, nullptr), 1);
  const std::uint64_t child = trace.ChildId();
  const pid_t foreign = ::fork();
  if (foreign == 0) ::_exit(4);
  const std::string entry = "/proc/" + std::to_string(child);
  ASSERT_TRUE(Eventually([&] {
    ReapChildren();
    return !std::filesystem::exists(entry);
  }));
  int status = 0;
  EXPECT_EQ(::waitpid(foreign, &status, 0), foreign);
  EXPECT_FALSE(IsProcessRunning(child));
  EXPECT_FALSE(IsProcessRunning(child));
  const std::string text = "Helper - Process " + std::to_string(child) + " running ...";
  const std::vector<std::string> lines = trace.Lines(true);
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 2, lines.end()),
              ElementsAre(text, "Helper - Waitpid " + std::to_string(child) + " (768)",
                          text + " FALSE", text, text + " FALSE"));
}

TEST(StartApplication, StartsTheProgramBesideTheInstallation) {
  const TemporaryFolder& root = Installation();
  const std::string program = root.Write("bin/qix", "#!/bin/sh\necho \"$@\"\n");
  ASSERT_EQ(::chmod(program.c_str(), 0700), 0);
  const std::string arguments = "-show card > " + root.Path("shown");
  EXPECT_EQ(StartApplication(arguments.c_str(), true), 1);
  EXPECT_TRUE(Eventually([&] { return root.Read("shown") == "-show card\n"; }));
  EXPECT_EQ(StartApplication("-show card", false), 1);
}

}  // namespace
}  // namespace qixx
