#include "runtime/trace.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <span>

#include "runtime/journal.h"
#include "runtime/product.h"
#include "runtime/text.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

// The wall clock of this program can be moved on.
static time_t clockShift = 0;
extern "C" time_t time(time_t* result) noexcept {
  timespec real = {};
  ::clock_gettime(CLOCK_REALTIME, &real);
  if (result != nullptr) *result = real.tv_sec + clockShift;
  return real.tv_sec + clockShift;
}

// What the journal of this program was sent.
static std::vector<std::string> journal;
extern "C" ssize_t sendmsg(int /*socket*/, const msghdr* message, int flags) {
  const auto* const address = static_cast<const sockaddr_un*>(message->msg_name);
  EXPECT_STREQ(address->sun_path, qixx::runtime::kJournalSocket);
  EXPECT_EQ(flags, MSG_DONTWAIT | MSG_NOSIGNAL) << "it is not waited for";
  std::string& datagram = journal.emplace_back();
  for (const iovec& part : std::span(message->msg_iov, message->msg_iovlen)) {
    datagram.append(static_cast<const char*>(part.iov_base), part.iov_len);
  }
  return static_cast<ssize_t>(datagram.size());
}

namespace qixx::runtime {
namespace {

using namespace ::testing;
using namespace std::literals;
namespace fs = std::filesystem;

constexpr time_t kDay = 86'400;

class TraceTest : public ::testing::Test {
 protected:
  ~TraceTest() override {
    TraceSetCallback(nullptr);
    TraceSetFile("");
    // Whole days on, so that the next case finds the size check due and the stamp at zero.
    clockShift = (clockShift / kDay + 2) * kDay;
  }
  void SetFile(const std::string& name) const { TraceSetFile(folder_.Path(name)); }
  std::string Dump(const std::string& name) const {
    TraceDump(name.c_str(), AsBytes("d\0a"sv));
    return folder_.Read("~qix" + name);
  }
  /// What is said on standard error when lines go to the file.
  std::string Refusals(const std::string& name) const {
    ::testing::internal::CaptureStderr();
    SetFile(name);  // must not block
    for (int i = 0; i < 2; ++i) TraceWrite("lost");
    return ::testing::internal::GetCapturedStderr();
  }
  testing::TemporaryFolder folder_;
};

TEST_F(TraceTest, JournalTakesOneDatagramForALine) {
  TraceSetFile(kJournalTarget);
  TraceWrite("a\nPRIORITY=0\n%s", "b");
  TraceWrite("Watch - Inserted event ... %s", "FAILED");
  const std::string head = "SYSLOG_IDENTIFIER=qixxwatch\nMESSAGE\n";
  const auto is = [&head](const std::string& priority, const std::string& end) {
    return AllOf(StartsWith("PRIORITY=" + priority + "\n" + head), EndsWith(end + "\n"));
  };
  EXPECT_THAT(journal, ElementsAre(HasSubstr(" Trace - Date "), is("6", " a\nPRIORITY=0\nb"),
                                   is("4", " Watch - Inserted event ... FAILED")));
  for (const std::string& datagram : journal) {
    const std::string message = datagram.substr(datagram.find(head) + head.size());
    std::uint64_t length = 0;
    std::memcpy(&length, message.data(), sizeof length);
    EXPECT_EQ(length + sizeof length + 1, message.size()) << "as the journal's protocol has it";
  }
}

TEST_F(TraceTest, WritesDateLineAndStampedLines) {
  SetFile("a.log");
  errno = 77;
  TraceWrite("Watch - Slot %d", 3);
  EXPECT_EQ(errno, 77);
  EXPECT_THAT(folder_.Read("a.log"),
              MatchesRegex("\\[[0-9]{4,}:[0-9a-f]{8}\\] 00\\.00\\.[0-9.]{6} Trace - Date "
                           "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}, '[^']*a.log'\n"
                           "\\[[^]]+\\] 00\\.[0-9.]{9} Watch - Slot 3\n"));
  EXPECT_EQ(fs::status(folder_.Path("a.log")).permissions(), fs::perms{0600});
}

TEST_F(TraceTest, FormatsArgumentsAndCutsWhatIsTooLong) {
  static std::string last;
  TraceSetCallback([](const char* line, std::size_t length) { last.assign(line, length); });
  TraceWrite("%hhd %zu %lld %#X %c %%", static_cast<signed char>(-1), SIZE_MAX, -5LL, 31u, 'a');
  EXPECT_EQ(last, "-1 18446744073709551615 -5 0X1F a %\n");
  TraceWrite("%s", std::string(20'000, 'x').c_str());
  EXPECT_EQ(last, std::string(kMaxTraceLine - 1, 'x') + '\n');
}

TEST_F(TraceTest, EmptiesALargeTargetOnceAnHour) {
  constexpr std::uintmax_t kLimit = 104'857'600;
  const std::string file = folder_.Write("a.log", "");
  fs::resize_file(file, kLimit);
  SetFile("a.log");
  clockShift += 3540;
  TraceWrite("not yet");
  EXPECT_GT(fs::file_size(file), kLimit) << "kept at the limit itself, and within the hour";
  clockShift += 120;
  TraceWrite("due");
  EXPECT_THAT(folder_.Read("a.log"), MatchesRegex("\\[[^\n]* due\n"));
}

TEST_F(TraceTest, KeepsToRegularFilesOfItsOwn) {
  InitProductIdentity();
  for (const char* const name : {"kept", "~qixtheirs", "theirs.log"}) folder_.Write(name, "kept");
  const std::string kept = folder_.Path("kept");
  SetFile("a.log");
  folder_.Write("~qixdata.cer", "older and longer");
  fs::create_symlink(kept, folder_.Path("~qixlink"));
  fs::create_hard_link(kept, folder_.Path("~qixhard"));
  EXPECT_EQ(Dump("data.cer"), "d\0a"s);
  EXPECT_EQ(Dump("link") + Dump("hard"), "keptkept");
  fs::create_symlink(folder_.Path("made by the trace"), folder_.Path("link.log"));
  fs::create_hard_link(kept, folder_.Path("hard.log"));
  ASSERT_EQ(::mkfifo(folder_.Path("pipe.log").c_str(), 0600), 0);
  fs::create_symlink(folder_.Path(), folder_.Path("folder"));
  std::vector<std::string> refused = {"link.log", "hard.log", "pipe.log"};
  // Only root can give a file away.
  if (::geteuid() == 0) {
    for (const char* const name : {"folder", "~qixtheirs", "theirs.log"}) {
      ASSERT_EQ(::lchown(folder_.Path(name).c_str(), 1, 1), 0);
    }
    EXPECT_EQ(Dump("theirs"), "kept");
    refused.insert(refused.end(), {"theirs.log", "folder/b.log"});
  }
  for (const std::string& name : refused) {
    EXPECT_THAT(Refusals(name),
                MatchesRegex("qixxwatch: trace '[^\n]*" + name + "' is refused: [^\n]*\n"));
  }
  for (const char* const made : {"made by the trace", "b.log"}) {
    EXPECT_FALSE(fs::exists(folder_.Path(made))) << made;
  }
  EXPECT_EQ(folder_.Read("kept"), "kept");
  EXPECT_EQ(folder_.Read("theirs.log"), "kept");
}

}  // namespace
}  // namespace qixx::runtime
