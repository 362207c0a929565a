// The main function of every test program. The cases run in a child process with a home and a
// temporary folder of its own. This process stays behind to end what a case left over: when a case
// hangs, or the program is stopped, every process that came from it is killed and the traces that
// it wrote are printed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

/// Below the limit of the test runner, which would kill without a word. For one case.
constexpr unsigned kCaseSeconds = 110;

class CaseLimit : public ::testing::EmptyTestEventListener {
 public:
  void OnTestStart(const ::testing::TestInfo& /*info*/) override { ::alarm(kCaseSeconds); }
};

int RunCases(const std::string& home) {
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::setenv("HOME", home.c_str(), 1);
  ::setenv("TMPDIR", home.c_str(), 1);
  // What a developer's own shell may set must not reach the cases.
  for (const char* name : {"QIXX_SOFTCARD", "qixconfiglocal", "qixconfigglobal", "qixconfigref",
                           "NOTIFY_SOCKET", "WATCHDOG_USEC", "RUNTIME_DIRECTORY"}) {
    ::unsetenv(name);
  }
  ::testing::UnitTest::GetInstance()->listeners().Append(new CaseLimit);
  return RUN_ALL_TESTS();
}

/// Kills the cases' process group, and what left it: orphans become children of this process.
void KillDescendants(pid_t group) {
  ::kill(-group, SIGKILL);
  const std::string children = "/proc/self/task/" + std::to_string(::getpid()) + "/children";
  do {
    std::ifstream file(children);
    for (pid_t child = 0; file >> child;) ::kill(child, SIGKILL);
  } while (::waitpid(-1, nullptr, 0) > 0);
}

void PrintTraces(const std::string& home) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(home)) {
    if (entry.path().extension() != ".log" && entry.path().filename() != "stderr.txt") continue;
    std::cout << "--- " << entry.path().string() << "\n"
              << TemporaryFolder::ReadFile(entry.path()) << std::flush;
  }
}

/// The exit code of the cases; of those that had to be killed it is 1.
int AwaitCases(pid_t cases, const std::string& home) {
  int status = 0;
  const bool exited = ::waitpid(cases, &status, 0) == cases && WIFEXITED(status);
  // "Alarm clock" is that of a case which takes too long.
  if (!exited) std::cout << "\nStopped, or ended by: " << ::strsignal(WTERMSIG(status)) << "\n";
  KillDescendants(cases);
  if (!exited) PrintTraces(home);
  return exited ? WEXITSTATUS(status) : 1;
}

int Run() {
  const TemporaryFolder home;
  struct sigaction stop = {};
  stop.sa_handler = [](int /*signal*/) {};  // ends the wait for the cases
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &stop, nullptr);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t cases = ::fork();
  if (cases < 0) return 1;
  if (cases > 0) return AwaitCases(cases, home.Path());
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::signal(signal, SIG_DFL);
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
  // Without the destructors of this frame: the home belongs to the process that stays behind.
  ::exit(RunCases(home.Path()));
}

}  // namespace
}  // namespace qixx::testing

int main(int argc, char** argv) try {
  ::testing::InitGoogleMock(&argc, argv);
  // A debugger wants the cases in the process that it started.
  const bool isSimple = GTEST_FLAG_GET(list_tests) || GTEST_FLAG_GET(break_on_failure);
  return isSimple ? RUN_ALL_TESTS() : qixx::testing::Run();
} catch (const std::exception& failure) {
  std::fprintf(stderr, "No test was run: %s\n", failure.what());
  return 1;
}
