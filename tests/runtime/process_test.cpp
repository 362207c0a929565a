#include "runtime/process.h"
#include "runtime/secrets.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "runtime/children.h"
#include "runtime/spare_library.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::runtime {
namespace {

using testing::TemporaryFolder;
namespace fs = std::filesystem;

TEST(SplitArguments, Tokens) {
  const std::tuple<const char*, const char*, std::vector<std::string>> rows[] = {
      {"p", "  a\tb   c ", {"p", "a\tb", "c"}},
      {"p", "\"a b\" c\"d e\"", {"p", "a b", "c\"d", "e\""}},
      {"p", "\"ab\"c \"a\" \"\" \"", {"p", "ab", "c", "\"a\"", "\"\"", "\""}},
      {"p", "\"-a b\" \"ab c", {"p", "\"-a b\"", "\"ab c"}},
      {"", " \"my prog\" x", {"my prog", "x"}},
      {"", "   ", {}}};
  for (const auto& [program, arguments, entries] : rows) {
    EXPECT_EQ(SplitArguments(program, arguments), entries);
  }
}

TEST(MaskSecrets, Options) {
  const char* const rows[][2] = {
      {"-sopin 1 -puk 22 -PWD 3 -password 44", "-sopin * -puk ** -PWD * -password **"},
      {"-pincode   12 x", "-pincode   ** x"},
      {"-pin \"12 34\" x -pin \"1 2", "-pin \"*****\" x -pin \"***"},
      {"--pin=x 12 y", "--pin=x ** y"},
      {"-pin -pwd 12", "-pin **** **"},
      {"pin 1234 -pi 5 -pin  ", "pin 1234 -pi 5 -pin  "}};
  for (const auto& [text, masked] : rows) EXPECT_EQ(MaskSecrets(text), masked);
}

TEST(LaunchProcess, ChildStartsCleanAndIsReapedOnce) {
  const TemporaryFolder folder;
  const testing::TraceCapture trace;
  const std::string gate = folder.Path("gate");  // the child waits for somebody who writes to it
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  const std::string script = "read x < " + gate + "; exit 3";
  ::signal(SIGPIPE, SIG_IGN);
  const int leaked = ::open("/dev/zero", O_RDONLY);  // deliberately without close-on-exec
  EXPECT_TRUE(LaunchProcess("/bin/sh", "-c \"" + script + "\" > /missing/out", 1));
  ::close(leaked);

  ASSERT_EQ(trace.Lines().size(), 12U);
  EXPECT_EQ(trace.Lines().back(), "Helper - Wait for process finished (1)");
  const std::string id = trace.Lines()[1].substr(sizeof "Helper - Forked process id");
  const auto child = static_cast<pid_t>(std::stoi(id));
  const fs::path proc = "/proc/" + id;
  const auto read = [&](const char* name) { return TemporaryFolder::ReadFile(proc / name); };
  ASSERT_TRUE(testing::Eventually([&] { return read("cmdline").find(script) != script.npos; }));
  EXPECT_EQ(fs::read_symlink(proc / "fd/1"), "/dev/null");
  std::error_code closed;
  EXPECT_NE(fs::read_symlink(proc / "fd" / std::to_string(leaked), closed), "/dev/zero");
  EXPECT_EQ(::getsid(child), child);
  EXPECT_THAT(read("status"),
              ::testing::ContainsRegex("SigBlk:\t0{16}\nSigIgn:\t[0-9a-f]{12}[02468ace]"));

  EXPECT_TRUE(IsProcessRunning(std::stoull(id)));
  EXPECT_FALSE(IsProcessRunning(std::stoull(id) | std::uint64_t{1} << 32));
  const pid_t foreign = ::fork();
  if (foreign == 0) ::_exit(4);
  ::close(::open(gate.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_TRUE(testing::Eventually([&] { return ReapChildren(), !fs::exists(proc); }));
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(IsProcessRunning(std::stoull(id)));
  EXPECT_EQ(trace.Count("Helper - Waitpid " + id + " (768)"), 1U) << "the status is kept once";
  EXPECT_EQ(::waitpid(foreign, nullptr, 0), foreign) << "not reaped by us";
}

TEST(LaunchProcess, WhatCannotStartEndsQuietly) {
  for (const char* const program : {"/missing", "false", ""}) {
    EXPECT_TRUE(LaunchProcess(std::string(program), " "));
    int status = -1;
    EXPECT_GT(::wait(&status), 0);
    EXPECT_EQ(status, 0) << program;
  }
}

const std::string kFixture = QIXX_LOADER_FIXTURE;

TEST(Library, IsSearchedForOnceUntilUnloaded) {
  const TemporaryFolder folder;
  SetLibraryDirectory(folder.Path());
  const testing::TraceCapture trace;
  CLibrary library;
  EXPECT_FALSE(library.Load("libqixlate.so"));
  const std::string file = folder.Write("libqixlate.so", TemporaryFolder::ReadFile(kFixture));
  EXPECT_FALSE(library.Load("libqixlate.so"));
  EXPECT_TRUE(library.IsLoaded()) << "also when it failed, as intended";
  library.Unload();
  EXPECT_TRUE(library.Load("libqixlate.so"));
  EXPECT_NE(library.GetProc("RunCommand"), nullptr);
  library.Unload();
  SetLibraryDirectory({});
  EXPECT_THAT(trace.Lines(), ::testing::ElementsAre("Helper - Failed to load 'libqixlate.so'",
                                                    "Helper - Loaded '" + file + "'",
                                                    "Helper - Unloaded '" + file + "'"));
}

TEST(Library, ThatIsNotFoundIsToldPlaceByPlace) {
  const TemporaryFolder folder;
  folder.Write("libqixtext.so", "no library");
  SetLibraryDirectory(folder.Path());
  std::vector<FailedOpen> failed;
  EXPECT_FALSE(LoadLibrarySearch("libqixtext.so", &failed));
  SetLibraryDirectory({});
  ASSERT_EQ(failed.size(), 3U);
  EXPECT_EQ(failed[0].path, "libqixtext.so");
  EXPECT_THAT(failed[0].reason, ::testing::HasSubstr("No such file"));
  EXPECT_EQ(failed[1].path, InstallDirectory() + "libqixtext.so");
  EXPECT_EQ(failed[2].path, folder.Path("libqixtext.so"));
  EXPECT_THAT(failed[2].reason, ::testing::HasSubstr("too short"));

  EXPECT_THAT(LibrariesDefining("RunCommand"), ::testing::IsEmpty());
  const SharedLibrary library = OpenLibrary(kFixture);
  EXPECT_THAT(LibrariesDefining("RunCommand"), ::testing::ElementsAre(kFixture));
  EXPECT_THAT(LibrariesDefining("dlopen"), ::testing::Not(::testing::Contains(kFixture)))
      << "although a search from there finds it";
}

TEST(EntryPoints, AreCalledWithACopy) {
  const std::pair<const char*, bool> rows[] = {{",RunCommand one, two", true},
                                               {" RunCommand x", false},
                                               {",RunCommand", false},
                                               {",Missing x", false},
                                               {",Throw x", false}};
  for (const auto& [behind, called] : rows) {
    const std::string text = kFixture + behind;
    EXPECT_EQ(CallExternal(text), called) << text;
  }
}

}  // namespace
}  // namespace qixx::runtime
