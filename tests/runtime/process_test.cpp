#include "runtime/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>

#include "runtime/children.h"
#include "runtime/sync.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx {
namespace {

using testing::Eventually;
using testing::TemporaryFolder;
namespace fs = std::filesystem;

TEST(SplitArguments, Tokens) {
  const std::tuple<const char*, const char*, std::vector<std::string>> kRows[] = {
      {"p", "  a\tb   c ", {"p", "a\tb", "c"}},
      {"p", "\"a b\" c\"d e\"", {"p", "a b", "c\"d", "e\""}},
      {"p", "\"ab\"c \"a\" \"\" \"", {"p", "ab", "c", "\"a\"", "\"\"", "\""}},
      {"p", "\"-a b\" \"ab c", {"p", "\"-a b\"", "\"ab c"}},
      {"p", nullptr, {"p"}},
      {nullptr, " \"my prog\" x", {"my prog", "x"}},
      {"", "   ", {}}};
  for (const auto& [program, arguments, entries] : kRows) {
    std::size_t count = 99;
    char** const vector = SplitArguments(program, arguments, count);
    EXPECT_EQ(std::vector<std::string>(vector, vector + count), entries);
    FreeArguments(vector);
  }
}

TEST(MaskSecrets, Options) {
  const std::pair<const char*, const char*> kRows[] = {
      {"-sopin 1 -puk 22 -PWD 3 -password 44", "-sopin * -puk ** -PWD * -password **"},
      {"-pincode   12 x", "-pincode   ** x"},
      {"-pin \"12 34\" x -pin \"1 2", "-pin \"*****\" x -pin \"***"},
      {"--pin=12 x y", "--pin=** * y"},
      {"-pin -pwd 12", "-pin **** **"},
      {"pin 1234 -pi 5 -pin  ", "pin 1234 -pi 5 -pin  "}};
  for (const auto& [text, masked] : kRows) {
    EXPECT_STREQ(std::unique_ptr<char[]>(MaskSecrets(text)).get(), masked);
  }
}

TEST(LaunchProcess, ChildStartsCleanAndIsReapedOnce) {
  const TemporaryFolder folder;
  const testing::TraceCapture trace;
  const std::string gate = folder.Path("gate");  // the child waits for somebody who writes to it
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  const std::string script = "read x < " + gate + "; exit 3";
  ::signal(SIGPIPE, SIG_IGN);
  const int leaked = ::open("/dev/zero", O_RDONLY);  // deliberately without close-on-exec
  LaunchProcess("/bin/sh", ("-c \"" + script + "\" > /missing/out").c_str(), 1, false, nullptr);
  ::close(leaked);

  for (int i = 1; i <= 10; ++i) {
    EXPECT_TRUE(trace.Has("Helper - Wait for process finished (" + std::to_string(i) + ")"));
  }
  const std::string id = trace.Lines()[1].substr(sizeof "Helper - Forked process id");
  const std::uint64_t child = std::stoull(id);
  const std::string proc = "/proc/" + id + "/";
  const auto read = [&](const char* name) { return TemporaryFolder::ReadFile(proc + name); };
  ASSERT_TRUE(Eventually([&] { return read("cmdline").find(script) != script.npos; }));
  EXPECT_EQ(fs::read_symlink(proc + "fd/1"), "/dev/null");
  std::error_code closed;
  EXPECT_NE(fs::read_symlink(proc + "fd/" + std::to_string(leaked), closed), "/dev/zero");
  EXPECT_EQ(::getsid(static_cast<pid_t>(child)), static_cast<pid_t>(child));
  const std::string status = read("status");
  EXPECT_NE(status.find("SigBlk:\t0000000000000000"), std::string::npos);
  const std::string ignored = status.substr(status.find("SigIgn:") + sizeof "SigIgn:");
  EXPECT_EQ(std::stoull(ignored, nullptr, 16) & 1U << (SIGPIPE - 1), 0U);

  EXPECT_TRUE(IsProcessRunning(child));
  EXPECT_FALSE(IsProcessRunning(child | std::uint64_t{1} << 32));
  const pid_t foreign = ::fork();
  if (foreign == 0) ::_exit(4);
  ::close(::open(gate.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_TRUE(Eventually([&] { return ReapChildren(), !fs::exists(proc); }));
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(IsProcessRunning(child));
  EXPECT_EQ(trace.Count("Helper - Waitpid " + id + " (768)"), 1U) << "the status is kept once";
  EXPECT_EQ(::waitpid(foreign, nullptr, 0), foreign) << "not reaped by us";
}

TEST(LaunchProcess, WhatCannotStartEndsQuietlyBesideThreadsThatTrace) {
  const TemporaryFolder folder;
  TraceSetFile(folder.Path("trace.log").c_str());
  static std::atomic<bool> stop{false};
  const ThreadId tracer = ThreadCreate(
      [](void* argument) {
        while (!stop) TraceWrite("Trace - Busy %d", 1);
        return argument;
      },
      nullptr);
  for (const char* const program : {"/missing", "true", "", "/bin/true", "/bin/true"}) {
    EXPECT_EQ(LaunchProcess(program, " ", kWaitNone, false, nullptr), 1);
    int status = -1;
    EXPECT_TRUE(Eventually([&] { return ::waitpid(-1, &status, WNOHANG) > 0; })) << program;
    EXPECT_EQ(status, 0) << program;
  }
  stop = true;
  EXPECT_EQ(::pthread_join(tracer, nullptr), 0);
  TraceSetFile(nullptr);
}

}  // namespace
}  // namespace qixx
