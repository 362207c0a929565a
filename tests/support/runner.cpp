// The main function of every test program. The cases run in a child process with a home and a
// temporary folder of its own. This process stays behind to end what a case left over: when a case
// hangs, or the program is stopped, every process that came from it is killed and the traces that
// it wrote are printed.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

/// Below the limit of the test runner, which would kill without a word. For one case.
constexpr std::chrono::seconds kCaseLimit{110};
constexpr int kLookMilliseconds = 100;

volatile std::sig_atomic_t stopped = 0;

/// Nothing was tested when a filter meets no case, which would pass for success.
int RunAllTests() {
  const int code = RUN_ALL_TESTS();
  if (::testing::UnitTest::GetInstance()->test_to_run_count() != 0) return code;
  std::cout << "No case has a name that '" << GTEST_FLAG_GET(filter) << "' meets.\n";
  return 1;
}

/// Tells the process that stayed behind of each case that begins.
class CaseTeller : public ::testing::EmptyTestEventListener {
 public:
  explicit CaseTeller(int pipe) : pipe_(pipe) {}
  void OnTestStart(const ::testing::TestInfo& /*info*/) override {
    static_cast<void>(::write(pipe_, "", 1) == 1);
  }

 private:
  const int pipe_;
};

int RunCases(int pipe, const std::string& home) {
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::setenv("HOME", home.c_str(), 1);
  ::setenv("TMPDIR", home.c_str(), 1);
  // What a developer's own shell may set must not reach the cases.
  for (const char* name : {"QIXX_SOFTCARD", "qixconfiglocal", "qixconfigglobal", "qixconfigref"}) {
    ::unsetenv(name);
  }
  ::testing::UnitTest::GetInstance()->listeners().Append(new CaseTeller(pipe));
  return RunAllTests();
}

/// 0 for a text that begins with no number.
pid_t NumberIn(const std::string& text) {
  return static_cast<pid_t>(std::strtol(text.c_str(), nullptr, 10));
}

/// Kills the cases' process group, and what left it: orphans become children of this process.
void KillDescendants(pid_t group) {
  ::kill(-group, SIGKILL);
  const auto parentOf = [](const std::filesystem::path& process) {
    const std::string stat = TemporaryFolder::ReadFile(process / "stat");
    const std::size_t name = stat.rfind(')');
    return name == std::string::npos || stat.size() < name + 4 ? 0
                                                               : NumberIn(stat.substr(name + 4));
  };
  for (bool found = true; found;) {
    found = false;
    while (::waitpid(-1, nullptr, WNOHANG) > 0) found = true;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
      const pid_t process = NumberIn(entry.path().filename());
      if (process <= 0 || parentOf(entry.path()) != ::getpid()) continue;
      ::kill(process, SIGKILL);
      found = ::waitpid(process, nullptr, 0) == process || found;
    }
  }
}

void PrintTraces(const std::string& home) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(home, ignored)) {
    if (entry.path().extension() != ".log" && entry.path().filename() != "stderr.txt") continue;
    std::cout << "--- " << entry.path().filename().string() << " of "
              << entry.path().parent_path().filename().string() << "\n"
              << TemporaryFolder::ReadFile(entry.path()) << std::flush;
  }
}

/// The exit code of the cases; of those that had to be killed it is 1.
int AwaitCases(pid_t cases, int pipe, const std::string& home) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point end = Clock::now() + kCaseLimit;
  for (int status = 0;;) {
    if (::waitpid(cases, &status, WNOHANG) == cases) {
      KillDescendants(cases);
      if (WIFEXITED(status)) return WEXITSTATUS(status);
      std::cout << "\nThe case was ended by signal " << WTERMSIG(status) << ".\n";
      PrintTraces(home);
      return 1;
    }
    if (stopped != 0 || Clock::now() > end) {
      std::cout << (stopped != 0 ? "\nStopped from outside.\n" : "\nThe case takes too long.\n");
      PrintTraces(home);
      KillDescendants(cases);
      return 1;
    }
    pollfd begun = {pipe, POLLIN, 0};
    char ignored[64];
    if (::poll(&begun, 1, kLookMilliseconds) == 1 && ::read(pipe, ignored, sizeof ignored) > 0) {
      end = Clock::now() + kCaseLimit;
    }
  }
}

int Run() {
  const TemporaryFolder home;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return 1;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    ::signal(signal, [](int) { stopped = 1; });
  }
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t cases = ::fork();
  if (cases < 0) return 1;
  if (cases > 0) return AwaitCases(cases, ends[0], home.Path());
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::signal(signal, SIG_DFL);
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
  // Without the destructors of this frame: the home belongs to the process that stays behind.
  const int code = RunCases(ends[1], home.Path());
  ::exit(code);
}

}  // namespace
}  // namespace qixx::testing

int main(int argc, char** argv) try {
  ::testing::InitGoogleMock(&argc, argv);
  // A debugger wants the cases in the process that it started.
  if (GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
  return GTEST_FLAG_GET(break_on_failure) ? qixx::testing::RunAllTests() : qixx::testing::Run();
} catch (const std::exception& failure) {
  std::fprintf(stderr, "No test was run: %s\n", failure.what());
  return 1;
}
