// A set command's file: changed as a whole or not at all, and never one that is not its own.
#include "watch/logon_file.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>

#include "runtime/clock.h"
#include "runtime/descriptor.h"
#include "runtime/product.h"
#include "runtime/scarce_means.h"
#include "tests/support/environment.h"
#include "tests/support/recipes.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"
#include "tests/watch/scripted.h"
#include "watch/edit_in_time.h"
#include "watch/event_handlers.h"
#include "watch/file_scope.h"
#include "watch/placeholders.h"
#include "watch/running_jobs.h"
#include "watch/set_command.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using watch::EventKind;

constexpr uid_t kNobody = 65534;
const std::string kOriginal = "[Mail]\nUsername=\nDomain=old\nName=%USERNAME% of %DOMAIN%\n";
const std::string kFilled = "[Mail]\nUsername=ann\nDomain=example.org\nName=ann of example.org\n";
const std::string kCleared = "[Mail]\nUsername=\nDomain=\nName=%USERNAME% of %DOMAIN%\n";

class LogonFile : public ::testing::Test {
 protected:
  /// No test waits for less because of the one before it.
  LogonFile() { watch::BeginEventEdits(); }

  bool Insert(const std::string& options) { return Run(EventKind::kInsert, options); }
  bool Remove(const std::string& options) { return Run(EventKind::kRemove, options); }
  bool Insert() { return Insert("-config " + file_); }
  bool Restore() { return Remove("-restore -config " + file_); }

  /// What is in the folder, the file itself apart.
  [[nodiscard]] std::set<std::string> Others() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder_.Path())) {
      if (entry.path() != file_) names.insert(entry.path().filename().string());
    }
    return names;
  }
  [[nodiscard]] std::string Text() const { return folder_.Read("a.conf"); }
  /// Starts over with the folder as one case needs it.
  void StartOver() {
    fs::remove_all(folder_.Path());
    fs::create_directory(folder_.Path());
    folder_.Write("a.conf", kOriginal);
  }

  ScriptedReader reader_{AnnsCard()};
  TemporaryFolder folder_;
  const std::string file_ = folder_.Write("a.conf", kOriginal);

 private:
  bool Run(EventKind kind, const std::string& options) {
    return watch::SetCommand(reader_, {.kind = kind, .slot = 1}, watch::ParseSetOptions(options));
  }
};

/// Gives a file away; only root can.
void Give(const std::string& path, uid_t owner = kNobody, gid_t group = kNobody) {
  EXPECT_TRUE(::geteuid() != 0 || ::lchown(path.c_str(), owner, group) == 0) << path;
}

/// Runs something in a process of its own, which is nobody's when this one is root's.
template <typename Action>
bool AsNobody(const Action& action) {
  // The folders of the run are its user's alone.
  if (::geteuid() == 0) ::chmod(fs::temp_directory_path().c_str(), 0711);
  const pid_t other = ::fork();
  if (other == 0) {
    const bool dropped = ::geteuid() != 0 || (::setgroups(0, nullptr) == 0 &&
                                              ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
    ::_exit(dropped && action() ? 0 : 1);
  }
  int status = 1;
  ::waitpid(other, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(LogonFile, InsertionFillsAllButOneAndRemovalClearsSomeThatStillStand) {
  const std::string keys = "[A]\nusername=x\nDOMAIN=y\n";
  const std::string text =
      "Text=%UPN%|%USERNAME%|%DOMAIN%|%SUBJECT%|%SERIALNUMBER%|%OID.CN%|%subject%\n";
  folder_.Write("a.conf", keys + text);
  EXPECT_TRUE(Remove("-config " + file_));
  EXPECT_EQ(Text(),
            "[A]\nusername=\nDOMAIN=\n"
            "Text=%UPN%|%USERNAME%|%DOMAIN%|||%OID.CN%|%subject%\n");
  folder_.Write("a.conf", keys + text);
  EXPECT_TRUE(Insert());
  EXPECT_EQ(Text(),
            "[A]\nusername=ann\nDOMAIN=example.org\n"
            "Text=%UPN%|ann|example.org|o=Example\\, Inc.,cn=Ann Lee|2A|Ann Lee|%subject%\n");
}

TEST_F(LogonFile, IsWholeForWhoLooksOnAndAfterAKilledWriter) {
  const std::set<std::string> whole = {kOriginal, kFilled, kCleared};
  for (int round = 0; round < 60; ++round) {
    const pid_t other = ::fork();
    if (other == 0) {
      for (;;) static_cast<void>(Insert() && Restore());
    }
    for (int looks = round; looks != 0; --looks) {
      const std::string text = Text();
      EXPECT_TRUE(whole.contains(text)) << text;
    }
    ::kill(other, SIGKILL);
    ::waitpid(other, nullptr, 0);
    ASSERT_TRUE(whole.contains(Text())) << Text();
    ASSERT_TRUE(!Others().contains("a.conf.org") || folder_.Read("a.conf.org") == kOriginal);
  }
  EXPECT_TRUE(Insert());
  EXPECT_EQ(Text(), kFilled);
  EXPECT_EQ(Others(), std::set{"a.conf.org"s});
}

TEST_F(LogonFile, OnlyWhatNobodyWritesAnyMoreIsALeftOver) {
  const std::string alive = folder_.Write(".qixxwatch-new-fedcba9876543210", "in the making");
  const runtime::Descriptor held(::open(alive.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(held.Get(), LOCK_EX), 0);
  for (const char* const event : {"the first", "one that changes nothing"}) {
    folder_.Write(".qixxwatch-new-0123456789abcdef", "half");
    EXPECT_TRUE(Insert());
    EXPECT_EQ(Others(), (std::set{"a.conf.org"s, fs::path(alive).filename().string()})) << event;
  }
}

TEST_F(LogonFile, WhatCannotBeSavedIsNotChanged) {
  const std::string copy = file_ + ".org";
  const std::pair<const char*, std::function<void()>> faults[] = {
      {"a link as copy", [&] { fs::create_symlink("a.conf", copy); }},
      {"a pipe as copy", [&] { ::mkfifo(copy.c_str(), 0600); }},
      {"a copy with a second name", [&] { fs::create_hard_link(folder_.Write("b", "b"), copy); }},
      {"a file with a second name", [&] { fs::create_hard_link(file_, folder_.Path("b")); }},
  };
  for (const auto& [name, make] : faults) {
    SCOPED_TRACE(name);
    StartOver();
    make();
    const std::set<std::string> before = Others();
    EXPECT_FALSE(Insert());
    EXPECT_FALSE(Restore());
    EXPECT_EQ(Text(), kOriginal);
    EXPECT_EQ(Others(), before);
  }
}

TEST_F(LogonFile, OneThatIsMissingOrEncodedIsNotSet) {
  fs::create_symlink("a.conf", folder_.Path("a.edb"));
  EXPECT_FALSE(Remove("-config " + folder_.Path("a.edb")));
  EXPECT_EQ(Text(), kOriginal);
  for (const char* const missing : {"none.conf", "none/a.conf", ""}) {
    EXPECT_FALSE(Insert("-config " + folder_.Path(missing)));
    EXPECT_FALSE(Remove("-config " + folder_.Path(missing)));
  }
  EXPECT_FALSE(fs::exists(folder_.Path("none.conf")));
}

TEST_F(LogonFile, EndlessWalksThroughAHugeFileAreRefused) {
  constexpr std::size_t kMebibyte = std::size_t{1} << 20;
  const auto sections = [](std::size_t count, const std::string& entry) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
      text.append("\n[").append(entry + std::to_string(i) + "]\n").append(entry + "=\n");
    }
    return text;
  };
  const std::string large(15 * kMebibyte, ';');
  const std::string both = large + sections(8, "Username") + sections(7, "Domain");
  std::string oneLine = "%";
  for (int i = 0; i < 500'000; ++i) oneLine += "%SUBJECT%";
  const std::tuple<const char*, std::string, bool> rows[] = {
      {"as many as there may be", sections(watch::kMaxSetEntries, "Username"), true},
      {"one more", sections(watch::kMaxSetEntries + 1, "Username"), false},
      {"keys and placeholders together", both + "%SUBJECT%\n", false},
      {"as many placeholders as there may be", oneLine, true},
      {"old names in UTF-16", "S\0o\0"s + std::string(5 * kMebibyte, ';'), false},
  };
  for (const auto& [name, text, fits] : rows) {
    folder_.Write("a.conf", text);
    EXPECT_EQ(Remove("-config " + file_), fits) << name;
    EXPECT_EQ(Text() == text, !fits) << name;
  }
}

TEST_F(LogonFile, FolderThatTakesNoNewFileLeavesOnlyWritingInPlace) {
  fs::permissions(file_, fs::perms{0666});
  fs::permissions(folder_.Path(), fs::perms{0555});
  EXPECT_TRUE(AsNobody([this] { return !Insert(); })) << "there is no saved copy";
  EXPECT_EQ(Text(), kOriginal);
  fs::permissions(folder_.Path(), fs::perms{0755});
  Give(file_);
  Give(folder_.Write("a.conf.org", kOriginal));
  fs::permissions(folder_.Path(), fs::perms{0555});
  EXPECT_TRUE(AsNobody([this] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlim_t room = Text().size() + 1;
    const rlimit tight = {room, room};
    return ::setrlimit(RLIMIT_FSIZE, &tight) == 0 && !Insert();
  }));
  EXPECT_EQ(Text(), kOriginal) << "what found no room is cut off again";
  EXPECT_TRUE(AsNobody([this] { return Insert(); }));
  EXPECT_EQ(Text(), kFilled);
  EXPECT_TRUE(AsNobody([this] { return Restore(); }));
  EXPECT_EQ(Text(), kCleared);
  fs::permissions(folder_.Path(), fs::perms{0755});
}

TEST_F(LogonFile, MissingOneIsMadeFromTheServicesOwnCopyOnly) {
  const std::string copy = folder_.Write("a.conf.org", kOriginal);
  fs::remove(file_);
  if (::geteuid() == 0) {
    Give(copy);
    EXPECT_FALSE(Insert());
    EXPECT_FALSE(Restore());
    EXPECT_FALSE(fs::exists(file_));
    Give(copy, 0, 0);
  }
  EXPECT_TRUE(Insert());
  EXPECT_EQ(Text(), kFilled);
}

TEST_F(LogonFile, CopyThatWasMadeWhileAnEditorWroteItAnewIsNone) {
  folder_.Write("a.conf", "");
  EXPECT_TRUE(Insert());
  EXPECT_EQ(folder_.Read("a.conf.org"), "");
  folder_.Write("a.conf", kOriginal);
  EXPECT_TRUE(Insert());
  EXPECT_EQ(Text(), kFilled);
  EXPECT_EQ(folder_.Read("a.conf.org"), kOriginal);
}

TEST_F(LogonFile, WhoHoldsTheFolderDelaysAWholeEventByTwoSeconds) {
  runtime::InitProductIdentity();
  const std::string set = "=set -config " + file_ + "\n";
  const TemporaryFolder elsewhere;
  elsewhere.Write("system.conf", "[Watch Remove]\n1" + set + "2" + set + "3" + set);
  const ScopedVariable path{"qixconfigglobal", elsewhere.Path("system.conf").c_str()};
  const runtime::Descriptor held(::open(folder_.Path().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(held.Get(), LOCK_EX), 0);
  Scripted machine;
  watch::CWatchOptions record = Record("config");
  const TraceCapture trace;
  for (int event = 0; event < 2; ++event) {
    const std::int64_t begin = runtime::MonotonicMilliseconds();
    watch::OnRemoveEvent(record, 1, machine.platform);
    const std::int64_t passed = runtime::MonotonicMilliseconds() - begin;
    EXPECT_TRUE(passed >= 1900 && passed <= 3900) << passed;
  }
  EXPECT_EQ(trace.Count("Watch - Set command ... OK"), 6U) << "without the lock then";
}

TEST_F(LogonFile, HeldFolderKeepsNoOtherWaitingAndDropsTheFillOfACardThatHasGone) {
  const std::string before = Text();
  const watch::WatchEvent event;
  const watch::LogonName ann = {.user = "ann", .domain = "d"};
  std::optional<watch::FileScope> held(std::in_place, file_);
  const TemporaryFolder elsewhere;
  EXPECT_TRUE(watch::SetConfigValue(elsewhere.Write("a.conf", kOriginal), "Domain", "x"));
  watch::BeginEventEdits(10);
  EXPECT_FALSE(watch::WriteLogonName(file_, ann, event.cardsGone)) << "it goes on";
  watch::NoteCardGone();
  held.reset();
  EXPECT_TRUE(watch::WaitForJobs(15'000));
  EXPECT_EQ(Text(), before);
  EXPECT_FALSE(watch::WriteLogonName(file_, ann, event.cardsGone))
      << "asked for behind the removal";
  EXPECT_EQ(Text(), before);
}

int leased = -1;

TEST_F(LogonFile, LeaseThatIsGivenBackCostsNothing) {
  const runtime::Descriptor holder(::open(file_.c_str(), O_RDONLY | O_CLOEXEC));
  leased = holder.Get();
  ::signal(SIGIO, [](int) { ::fcntl(leased, F_SETLEASE, F_UNLCK); });
  if (::fcntl(leased, F_SETLEASE, F_RDLCK) != 0) GTEST_SKIP() << "NOT TESTED: no leases here";
  EXPECT_TRUE(watch::ClearLogonValues(file_, false));
  EXPECT_NE(Text(), "");
  ::signal(SIGIO, SIG_DFL);
}

TEST_F(LogonFile, StrangersGainNothingFromRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "NOT TESTED: only root has rights to lend";
  ::chmod(fs::temp_directory_path().c_str(), 0711);
  const TemporaryFolder own;  // root's
  const std::string secret = own.Write("a.conf", "[Secret]\nUsername=root\n");
  own.Write("a.conf.org", "[Secret]\nUsername=%SUBJECT%\n");
  fs::permissions(secret, fs::perms{0600});
  const std::string copy = file_ + ".org";
  const auto link = [&](const std::string& target, const std::string& name) {
    fs::create_symlink(target, folder_.Path(name)), Give(folder_.Path(name));
  };
  const std::tuple<const char*, std::string, std::function<void()>> traps[] = {
      {"copy is a link of root's", file_, [&] { fs::create_symlink(secret, copy); }},
      {"copy is the secret renamed", file_, [&] { fs::copy(secret, copy); }},
      {"file is a link", folder_.Path("link.conf"), [&] { link(secret, "link.conf"); }},
      {"folder is a link", folder_.Path("d/a.conf"), [&] { link(own.Path(), "d"); }},
      {"somebody's file renamed into another one's folder", file_, [&] { Give(file_, 1234); }},
      {"root's file, nobody's copy", file_,
       [&] { Give(file_, 0, 0), Give(folder_.Write("a.conf.org", "[Mine]\n")); }},
      {"root's secret renamed into its folder for a group", file_,
       [&] {
         Give(file_, 0, 0), Give(folder_.Path(), 0, kNobody), fs::copy(secret, copy);
         fs::permissions(folder_.Path(), fs::perms{0775});
       }},
      {"root's file for a group, root's copy for another one", file_,
       [&] {
         Give(file_, 0), fs::copy(secret, copy);
         for (const std::string& path : {file_, copy}) fs::permissions(path, fs::perms{0640});
       }},
  };
  for (const auto& [name, set, make] : traps) {
    SCOPED_TRACE(name);
    StartOver();
    Give(file_);
    Give(folder_.Path());
    make();
    const std::set<std::string> before = Others();
    EXPECT_FALSE(Insert("-config " + set));
    EXPECT_EQ(Text(), kOriginal);
    EXPECT_EQ(TemporaryFolder::ReadFile(secret), "[Secret]\nUsername=root\n");
    EXPECT_EQ(Others(), before);
  }
  StartOver();
  Give(file_);
  Give(folder_.Path());
  EXPECT_TRUE(Insert());
  EXPECT_EQ(Text(), kFilled);
  for (const std::string& path : {file_, copy}) {
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kNobody) << path;
  }
}

TEST(LogonFiles, GetsWhatANameMeansThroughALinkThatStays) {
  const std::string head = "[" + std::string(300, 'A') + "]\n";
  const std::tuple<std::string, const char*, const char*, std::string> rows[] = {
      {head + "x=1\n", "K", "v", head + "x=1\nK=v\n"},
      {"[A]\nusername=1\nx=2\n[B]\nUSERNAME=3\n", "Username", "v",
       "[A]\nusername=v\nx=2\n[B]\nUSERNAME=v\n"},
      {"%A%%A%\r\n<%A%%a%>", "%A%", "v", "vv\r\n<v%a%>"},
      {"%OID.CN% %OID.cn%x", "%OID.cn%", "v", "v vx"},
      {"%X%%-%X%", "%X%", "%X%%X", "%X%%X%-%X%%X"},
      {"%X%\n-%X%\r\n %A%%X%[%X%", "%X%", " [b]", " _b]\n- [b]\r\n %A% _b][ [b]"},
      {"%A%X%%%X%%X% %X%", "%X%", "#", "%A#%_# #"},
      {"%X%\na/%X%", "%X%", "//x", "_/x\na///x"},
      {"<off %X%\n[B]\nk=v\n/> %X%\n", "%X%", "<x/>", "<off _x/_\n[B]\nk=v\n/> _x/_\n"},
      {"<off >\n[A]\nk=1\n", "k", "x/>y", "<off >\n[A]\nk=x/_y\n"},
      // No value makes a file old, but one that is stays one.
      {"[%X% Tokens]\n", "%X%", "Soft", "[%X% Tokens]\n"},
      {"; Soft Tokens %X%\n", "%X%", "v", "; Soft Tokens v\n"},
      // No value makes more of its neighbours; a removal clears the second one.
      {"a=x|%OID.ou%|y", "%OID.ou%", "", "a=x|_|y"},
      {"a=x|%SERIALNUMBER%|y", "%SERIALNUMBER%", "", "a=x||y"},
      {"p=/d/.%OID.ou%./x", "%OID.ou%", "", "p=/d/._./x"},
      {"%OID.ou%/a=1", "%OID.ou%", "/", "_/a=1"},
      {"p=/..%OID.ou%/a", "%OID.ou%", "", "p=/.._/a"},
      {"%USERNAME%;a=1", "%USERNAME%", " ", " _;a=1"},
  };
  for (const auto& [before, name, value, after] : rows) {
    const TemporaryFolder folder;
    const std::string link = folder.Path("link.conf");
    folder.Write("real.conf", before);
    fs::create_symlink("real.conf", link);
    EXPECT_TRUE(watch::BackupOrRestoreConfigFile(link));
    const bool refused = *name == '%' && after == before;
    EXPECT_EQ(watch::SetConfigValue(link, name, value), !refused) << before;
    EXPECT_EQ(folder.Read("real.conf"), after);
    EXPECT_TRUE(watch::BackupOrRestoreConfigFile(link));
    EXPECT_EQ(folder.Read("real.conf"), before);
    fs::remove(folder.Path("real.conf"));
    EXPECT_FALSE(watch::BackupOrRestoreConfigFile(link));
    EXPECT_TRUE(fs::is_symlink(link)) << "although it leads nowhere";
  }
}

TEST_F(LogonFile, TwoServicesLoseNoValues) {
  constexpr int kKeys = 50;
  const auto setAll = [this](char head) {
    for (int i = 0; i < kKeys; ++i) watch::SetConfigValue(file_, head + std::to_string(i), "!");
  };
  const pid_t other = ::fork();
  if (other == 0) setAll('b'), ::_exit(0);
  setAll('a');
  ::waitpid(other, nullptr, 0);
  const std::string text = Text();
  EXPECT_EQ(std::ranges::count(text, '!'), 2 * kKeys) << text;
}

TEST(EditInTime, GoesOnWithoutAnAnswerAndDoesNothingTwiceOrOutOfOrder) {
  using watch::EditKind;
  struct Edits {
    std::atomic<bool> answers = false;
    std::string done;
    bool Ask(EditKind kind, char mark) {
      const runtime::ScarceMeans scarce;
      const bool result = watch::EditInTime("/hung", kind, [this, mark] {
        answers.wait(false);
        return done += mark, true;
      });
      EXPECT_EQ(scarce.Any(), !result) << "a removal tries again";
      return result;
    }
    void Answer() {
      EXPECT_FALSE(watch::HaveJobsRun()) << "a removal is not done yet";
      answers = true;
      answers.notify_all();
      EXPECT_TRUE(watch::WaitForJobs(15'000));
    }
  };
  // The last one clears behind the removal of another card.
  for (const auto& [late, next, isOutdated, done] :
       {std::tuple(EditKind::kFill, EditKind::kClear, false, "la"),
        {EditKind::kClear, EditKind::kRestoreAndClear, false, "la"},
        {EditKind::kClear, EditKind::kClear, false, "l"},
        {EditKind::kClear, EditKind::kClear, true, "la"}}) {
    Edits edits;
    watch::BeginEventEdits(10);
    EXPECT_FALSE(edits.Ask(late, 'l'));
    watch::BeginEventEdits(60'000);
    EXPECT_FALSE(edits.Ask(next, 'b')) << "nobody waits behind it";
    EXPECT_TRUE(watch::EditInTime("/other", EditKind::kClear, [] { return true; }));
    if (isOutdated) watch::NoteCardGone();
    edits.Answer();
    EXPECT_TRUE(edits.Ask(next, 'a'));
    EXPECT_EQ(edits.done, done);
  }
}

}  // namespace
}  // namespace qixx::testing
