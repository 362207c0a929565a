#include "runtime/process.h"
#include "runtime/secrets.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

#include "runtime/children.h"
#include "runtime/descriptor.h"
#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/spare_trace.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::runtime {
namespace {

using testing::Eventually;
using testing::TemporaryFolder;
using namespace ::testing;
using namespace std::string_literals;
namespace fs = std::filesystem;

TEST(SplitArguments, Tokens) {
  const std::tuple<const char*, const char*, std::vector<std::string>> rows[] = {
      {"p", "\"a b\" c\"d e\"", {"p", "a b", "c\"d", "e\""}},
      {"p", "\"ab\"c \"a\" \"\" \"", {"p", "ab", "c", "\"a\"", "\"\"", "\""}},
      {"", " \"my prog\" x", {"my prog", "x"}},
      {"", "   ", {}}};
  for (const auto& [program, arguments, entries] : rows) {
    EXPECT_EQ(SplitArguments(program, arguments), entries);
  }
}

TEST(MaskSecrets, Options) {
  const char* const rows[][2] = {
      {"-sopin 1 -puk 22 -PWD 3 -password 44", "-sopin * -puk ** -PWD * -password **"},
      {"-pin \"12 34\" x -pin \"1 2", "-pin \"*****\" x -pin \"***"},
      {"--pin=x 12 y --PassWord=\"3 4\" z", "--pin=* 12 y --PassWord=\"***\" z"},
      {"-pin\t1 \t-puk \t 22 -pwd = 3 -pin==4 5", "-pin\t* \t-puk \t ** -pwd * * -pin=** 5"},
      {"\"-pin\" 12 x \"-pin\"34 -pin\"5 6\" y", "\"-pin\" ** x \"-pin\"** -pin\"***\" y"},
      {"\"--opts -password my secret\" \"--user=bob --pin=1 2\"",
       "\"--opts -password *********\" \"--user=bob --pin=***\""},
      {"\"log in -pin \"1 2\" x\" \"-pwd=\"3\" y", "\"log in -pin \"***\" x\" \"-pwd=\"*\" y"},
      {"pin 1234 -pi 5 -pin  ", "pin 1234 -pi 5 -pin  "}};
  for (const auto& [text, masked] : rows) EXPECT_EQ(MaskSecrets(text), masked);
}

TEST(MaskedLine, ShowsNothingThatTheWholeLineHides) {
  const MaskedLine line("/bin/x -pin \"ab c\" -user c > /ab");
  const char* const rows[][2] = {{"/bin/x", "/bin/x"},
                                 {"\"ab", "\"**"},
                                 {"ab c", "****"},
                                 {"c", "c"},
                                 {"b c\" -user c", "***\" -user c"},
                                 {"/ab.org", "*******"},
                                 {"", ""}};
  for (const auto& [part, shown] : rows) EXPECT_EQ(line.Part(part), shown);
}

TEST(LaunchProcess, ChildStartsCleanAndIsReapedOnce) {
  const TemporaryFolder folder;
  const testing::TraceCapture trace;
  const std::string gate = folder.Path("gate");  // the child waits for somebody who writes to it
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  const std::string script = "read x < " + gate + "; exit 3";
  for (const int signal : {SIGPIPE, SIGTTOU}) ::signal(signal, SIG_IGN);
  const Descriptor leaked(::open("/dev/zero", O_RDONLY));  // deliberately without close-on-exec
  EXPECT_TRUE(LaunchProcess("/bin/sh", "-c \"" + script + "\" > /missing/out", 1));

  ASSERT_GE(trace.Lines().size(), 2U);
  const std::string id = trace.Lines()[1].substr(sizeof "Helper - Forked process id");
  const fs::path proc = "/proc/" + id;
  const auto read = [&](const char* name) { return TemporaryFolder::ReadFile(proc / name); };
  ASSERT_TRUE(Eventually([&] { return read("cmdline").find(script) != script.npos; }));
  EXPECT_EQ(fs::read_symlink(proc / "fd/1"), "/dev/null");
  std::error_code closed;
  EXPECT_NE(fs::read_symlink(proc / "fd" / std::to_string(leaked.Get()), closed), "/dev/zero");
  EXPECT_EQ(std::to_string(::getsid(std::stoi(id))), id);
  EXPECT_THAT(read("status"),
              ContainsRegex("SigBlk:\t0{16}\nSigIgn:\t[0-9a-f]{10}[014589cd].[02468ace]"));

  EXPECT_TRUE(IsProcessRunning(std::stoull(id)));
  const pid_t foreign = ::fork();
  if (foreign == 0) ::_exit(4);
  ::close(::open(gate.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_TRUE(Eventually([&] { return ReapChildren(), !fs::exists(proc); }));
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(IsProcessRunning(std::stoull(id)));
  EXPECT_EQ(trace.Count("Helper - Waitpid " + id + " (768)"), 1U) << "the status is kept once";
  EXPECT_EQ(::waitpid(foreign, nullptr, 0), foreign) << "not reaped by us";
}

/// A folder for the file behind ">", and another one that is closed to strangers.
class Redirection : public ::testing::Test {
 protected:
  /// Returns what was said on standard error until the program had ended.
  std::string LaunchInto(const std::string& file) {
    TraceSetFile(vault_.Write("trace.log", ""));
    ::testing::internal::CaptureStderr();
    EXPECT_TRUE(LaunchProcess("/bin/echo", "out > " + file));
    int status = -1;
    EXPECT_TRUE(Eventually([&] { return ::waitpid(-1, &status, WNOHANG) > 0; })) << "it waits";
    EXPECT_EQ(status, 0);
    TraceSetFile("");
    EXPECT_THAT(vault_.Read("trace.log"), Not(HasSubstr("pin 12")));
    return ::testing::internal::GetCapturedStderr();
  }
  static std::string Lost(const std::string& file, const std::string& reason) {
    return "qixxwatch: '/bin/echo' without its output, '" + file + "' " + reason + "\n";
  }

  const TemporaryFolder folder_;
  const TemporaryFolder vault_;
};

TEST_F(Redirection, GoesToWhatTheServicesUserPutThere) {
  constexpr const char* kLonger = "a longer text than the output";
  const std::string longer = folder_.Write("old", kLonger);
  fs::create_hard_link(longer, folder_.Path("second"));
  fs::create_symlink(longer, folder_.Path("link"));
  fs::create_symlink("missing", folder_.Path("dangling"));
  const mode_t mask = ::umask(027);
  for (const char* const name : {"new", "second", "link", "dangling"}) {
    EXPECT_EQ(LaunchInto(folder_.Path(name)), "") << name;
    EXPECT_EQ(folder_.Read(name), "out\n") << name;
    folder_.Write("old", kLonger);
  }
  ::umask(mask);
  EXPECT_EQ(fs::status(folder_.Path("new")).permissions(), fs::perms{0640});
  EXPECT_EQ(LaunchInto("/dev/null"), "");
  EXPECT_EQ(LaunchInto("/etc"), Lost("/etc", "cannot be opened: Is a directory"));
}

TEST_F(Redirection, GoesIntoPipes) {
  // The program waits for the reader of a pipe, and may then wait for it to read.
  const std::string pipe = folder_.Path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_TRUE(LaunchProcess("/bin/sh", "-c \"head -c 200000 /dev/zero\" > " + pipe));
  EXPECT_EQ(TemporaryFolder::ReadFile(pipe).size(), 200000U);
  EXPECT_GT(::wait(nullptr), 0);
}

TEST_F(Redirection, GoesNowhereWhereStrangersLead) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  constexpr uid_t kNobody = 65534;
  const std::string secret = vault_.Write("secret", "kept");
  const std::string file = folder_.Path("-pin 12");
  const std::string masked = folder_.Path("-pin **");
  const auto give = [](const std::string& path, uid_t owner) {
    ASSERT_EQ(::lchown(path.c_str(), owner, owner), 0);
  };
  fs::permissions(folder_.Path(), fs::perms::all);
  give(folder_.Path(), kNobody);
  const std::pair<std::string, std::function<void()>> rows[] = {
      {"", [] {}},
      {"", [&] { folder_.Write("-pin 12", "theirs"), give(file, kNobody); }},
      {"a file of somebody else", [&] { folder_.Write("-pin 12", "kept"), give(file, 1234); }},
      {"a link of somebody else", [&] { fs::create_symlink(secret, file), give(file, kNobody); }},
      {"a file with a second name", [&] { fs::create_hard_link(secret, file); }},
      {"a pipe of somebody else", [&] { ::mkfifo(file.c_str(), 0666), give(file, kNobody); }}};
  for (const auto& [reason, put] : rows) {
    fs::remove(file);
    put();
    const std::string said = LaunchInto("\"" + file + "\"");
    EXPECT_EQ(said, reason.empty() ? "" : Lost(masked, "is " + reason));
    if (reason.empty()) {
      EXPECT_EQ(folder_.Read("-pin 12"), "out\n");
    }
    EXPECT_EQ(vault_.Read("secret"), "kept");
  }
}

TEST(LaunchProcess, HoldsTheTraceWhileForkingAndStartsBesideAStop) {
  static std::atomic<bool> held{false};
  const auto look = [] { std::thread([] { held = TraceLock().IsHeldByOtherThread(); }).join(); };
  // The child is still in the service's group then.
  const auto stopGroup = [] { ::raise(SIGTERM); };
  ASSERT_EQ(::pthread_atfork(look, nullptr, stopGroup), 0);
  TraceSetFile("");
  for (const char* const program : {"/bin/true", "/missing", "false", ""}) {
    EXPECT_TRUE(LaunchProcess(program, " ")) << "also when there is nothing to start";
    int status = -1;
    EXPECT_GT(::wait(&status), 0);
    EXPECT_EQ(status, 0) << program;
  }
  EXPECT_TRUE(held) << "so that the child can trace";
}

TEST(CallExternal, NeedsAFunctionThatComesBack) {
  EXPECT_TRUE(CallExternal("libstdc++.so.6,abs x, y"));
  // The last one throws std::bad_cast.
  for (const char* const function :
       {" abs x", ",abs", ",missing x", ",_ZSt16__throw_bad_castv x"}) {
    EXPECT_FALSE(CallExternal("libstdc++.so.6"s + function)) << function;
  }
}

}  // namespace
}  // namespace qixx::runtime
