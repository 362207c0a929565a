#include "runtime/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <tuple>

#include "runtime/replace_file.h"
#include "tests/support/temporary_folder.h"

// The owner of a file of this program cannot be changed while this is false.
static bool chownAllowed = true;
extern "C" int fchown(int file, uid_t owner, gid_t group) noexcept {
  if (chownAllowed) return static_cast<int>(::syscall(SYS_fchown, file, owner, group));
  errno = EPERM;
  return -1;
}

namespace qixx::runtime {
namespace {

using testing::TemporaryFolder;
namespace fs = std::filesystem;
using namespace std::string_literals;

TEST(WholeFiles, AreReadWhenRegularAndNotTooLarge) {
  const TemporaryFolder folder;
  ASSERT_EQ(::mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  fs::create_symlink("/proc/self/cmdline", folder.Path("no size of its own"));
  fs::resize_file(folder.Write("large", ""), kMaxFileSize + 1);
  folder.Write("step", std::string(65536, 's'));
  folder.Write("empty", "");
  for (const char* const name : {"none", "pipe", "large", ""}) {
    EXPECT_EQ(ReadWholeFile(folder.Path(name)), std::nullopt) << name;
  }
  for (const char* const name : {"step", "no size of its own", "empty"}) {
    EXPECT_EQ(ReadWholeFile(folder.Path(name)), folder.Read(name)) << name;
  }
}

TEST(WholeFiles, WhatCannotBeLikeTheOldOneIsWrittenInPlace) {
  const uid_t self = ::geteuid();
  const gid_t group = ::getegid();
  // Name, owner, group, mode, mode of a copy, whether it is written in place.
  const std::tuple<const char*, uid_t, gid_t, mode_t, mode_t, bool> rows[] = {
      {"its own", self, group, 0764, 0764, false},
      {"another owner", 1234, group, 0600, 0600, true},
      {"a group that may do more", self, 1234, 0764, 0744, true}};
  for (const auto& [name, owner, itsGroup, mode, copied, inPlace] : rows) {
    SCOPED_TRACE(name);
    const TemporaryFolder folder;
    const std::string file = folder.Write("file", "old");
    if (::chown(file.c_str(), owner, itsGroup) != 0) continue;  // only root's may
    fs::permissions(file, fs::perms{mode});
    const FilePlace place = FindFile(file).real;
    const Descriptor old = place.Open(O_RDWR);
    chownAllowed = false;
    EXPECT_TRUE(ReplaceFile(place, old, "newer"));
    EXPECT_TRUE(MakeFile(place.WithSuffix(".org"), "copy", old));
    chownAllowed = true;
    EXPECT_EQ(folder.Read("file"), "newer");
    const struct stat after = StatusOf(OpenRegular(file, O_RDONLY));
    EXPECT_EQ(after.st_ino == StatusOf(old).st_ino, inPlace);
    EXPECT_EQ(after.st_uid, owner);
    EXPECT_EQ(after.st_mode, S_IFREG | mode);
    EXPECT_EQ(fs::status(file + ".org").permissions(), fs::perms{copied});
  }
}

TEST(WholeFiles, AreFoundThroughFoldersAndLinks) {
  const TemporaryFolder folder;
  folder.Write("a/b/file", "found");
  folder.Write("x", "no folder");
  fs::create_symlink("../a//b/", folder.Path("a/up"));
  fs::create_symlink(folder.Path("a/up/file"), folder.Path("first"));
  fs::create_symlink("round", folder.Path("round"));
  for (const char* const name : {"a/./b/../b//file", "a/up/file", "first"}) {
    const Descriptor file = FindFile(folder.Path(name)).real.Open(O_RDONLY);
    EXPECT_EQ(ReadToEnd(file, kMaxFileSize), "found") << name;
  }
  for (const char* const name : {"", "/", "a", "a/b/file/", "x/file", "none/file", "round"}) {
    EXPECT_FALSE(FindFile(folder.Path(name)).real.Open(O_RDONLY).IsOpen()) << name;
  }
}

TEST(WholeFiles, AreReadUpToALimit) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("file", "0123456789");
  const auto read = [](const std::string& name, std::size_t limit) {
    return ReadToEnd(Descriptor(::open(name.c_str(), O_RDONLY)), limit);
  };
  EXPECT_EQ(read(path, 10), "0123456789");
  EXPECT_EQ(read(path, 9), std::nullopt);
  EXPECT_EQ(read("/proc/self/status", 9), std::nullopt) << "its size is said to be 0";
}

TEST(WholeFiles, StayWholeWhenTheNewTextIsCutShort) {
  const TemporaryFolder folder;
  const FilePlace place = FindFile(folder.Write("file", "old")).real;
  const auto isReplaced = [&] {
    const rlimit few = {4, RLIM_INFINITY};
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &few);
    ::_exit(ReplaceFile(place, place.Open(O_RDWR), "longer") ? 1 : 0);
  };
  EXPECT_EXIT(isReplaced(), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(folder.Read("file"), "old");
  fs::create_directory(folder.Path("folder"));
  EXPECT_FALSE(MakeFile(FindFile(folder.Path("folder")).real, "text", place.Open(O_RDWR)));
  fs::remove(folder.Path("folder"));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.Path()), {}), 1) << "no left-over";
}

TEST(WholeFiles, AccessListStaysAndItsMaskIsNotTheGroups) {
  // Everything for the owner, reading for user 1234, nothing for the group; the mask is to read.
  const std::string any(4, '\xFF');
  const std::string list = "\2\0\0\0\1\0\6\0"s + any + "\2\0\4\0\xD2\4\0\0\4\0\0\0"s + any +
                           "\x10\0\4\0"s + any + "\x20\0\0\0"s + any;
  constexpr const char* kName = "system.posix_acl_access";
  const TemporaryFolder folder;
  const std::string path = folder.Write("file", "old");
  if (::setxattr(path.c_str(), kName, list.data(), list.size(), 0) != 0) {
    GTEST_SKIP() << "NOT TESTED: the file system keeps no access lists";
  }
  const FilePlace place = FindFile(path).real;
  EXPECT_TRUE(ReplaceFile(place, place.Open(O_RDWR), "new"));
  char kept[64];
  const ssize_t length = ::getxattr(path.c_str(), kName, kept, sizeof kept);
  EXPECT_EQ(std::string(kept, length < 0 ? 0 : static_cast<std::size_t>(length)), list);
}

}  // namespace
}  // namespace qixx::runtime
