#include "runtime/trace.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "runtime/clock.h"
#include "runtime/descriptor.h"
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
extern "C" int gettimeofday(timeval* __restrict now, void* __restrict /*zone*/) noexcept {
  *now = {::time(nullptr), 0};
  return 0;
}

// The journal of this program is a socket of its own.
static std::string journalSocket;
extern "C" ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  journalSocket.copy(address.sun_path, sizeof address.sun_path - 1);
  if (std::string_view(static_cast<const sockaddr_un*>(message->msg_name)->sun_path) !=
      qixx::runtime::kJournalSocket) {
    return -1;
  }
  msghdr sent = *message;
  sent.msg_name = &address;
  return ::syscall(SYS_sendmsg, socket, &sent, flags);
}

namespace qixx::runtime {
namespace {

using ::testing::MatchesRegex;
namespace fs = std::filesystem;

constexpr time_t kDay = 86'400;

class TraceTest : public ::testing::Test {
 protected:
  ~TraceTest() override {
    TraceSetCallback(nullptr);
    TraceSetDelay(0);
    TraceSetFile("");
    // Whole days on, so that the next case finds the size check due and the stamp at zero.
    clockShift = (clockShift / kDay + 2) * kDay;
  }
  void SetFile(const std::string& name) const { TraceSetFile(folder_.Path(name)); }
  testing::TemporaryFolder folder_;
};

class JournalTest : public TraceTest {
 protected:
  JournalTest() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    journalSocket = folder_.Path("socket");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    journalSocket.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  /// The next message, empty when there is none.
  [[nodiscard]] std::string Receive() const {
    char data[kMaxTraceLine + 100];
    const ssize_t length = ::recv(socket_.Get(), data, sizeof data, 0);
    return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
  }
  Descriptor socket_;
};

TEST_F(JournalTest, TakesOneDatagramForALine) {
  TraceSetFile(kJournalTarget);
  EXPECT_THAT(Receive(), ::testing::HasSubstr(" Trace - Date "));
  const auto expected = [](char priority, std::size_t length, const std::string& text) {
    return std::string("PRIORITY=") + priority + "\nSYSLOG_IDENTIFIER=qixxwatch\nMESSAGE\n" +
           static_cast<char>(length & 0xFF) + static_cast<char>(length >> 8) +
           std::string(6, '\0') + "[" + text + "\n";
  };
  const auto withoutStamp = [](std::string message) {
    const std::size_t stamp = message.find('[');
    if (stamp != std::string::npos) message.erase(stamp + 1, message.find("] ") - stamp + 14);
    return message;
  };
  TraceWrite("a\nPRIORITY=0\n%s", "b");
  const std::string first = Receive();
  const std::size_t stamp = first.find("a\nPRIORITY") - first.find('[');
  EXPECT_EQ(withoutStamp(first), expected('6', stamp + 14, "a\nPRIORITY=0\nb"));
  TraceWrite("Watch - Inserted event ... %s", "FAILED");
  EXPECT_EQ(withoutStamp(Receive()),
            expected('4', stamp + 33, "Watch - Inserted event ... FAILED"));
  TraceWrite("%s", std::string(20'000, 'x').c_str());
  EXPECT_THAT(Receive(), ::testing::EndsWith("xxx\n"));
  TraceDump("cert.cer", AsBytes("x"));
  EXPECT_FALSE(fs::exists("journal"));
}

TEST_F(JournalTest, IsNeverWaitedForAndMayBeMissing) {
  TraceSetFile(kJournalTarget);
  for (int i = 0; i < 5000; ++i) TraceWrite("more than the socket holds");
  fs::remove(journalSocket);
  TraceWrite("nobody takes it");
  socket_.Close();
  TraceWrite("nobody takes it");
  EXPECT_TRUE(TraceIsOn());
}

TEST_F(TraceTest, WritesDateLineAndStampedLines) {
  SetFile("a.log");
  clockShift += kDay + 3600;
  errno = 77;
  TraceWrite("Watch - Slot %d", 3);
  EXPECT_EQ(errno, 77);
  EXPECT_THAT(folder_.Read("a.log"),
              MatchesRegex("\\[[0-9]{4,}:[0-9a-f]{8}\\] 00\\.[0-9.]{9} Trace - Date "
                           "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}, '[^']*a.log'\n"
                           "\\[[^]]+\\] 01\\.[0-9.]{9} Watch - Slot 3\n"));
  EXPECT_EQ(fs::status(folder_.Path("a.log")).permissions(), fs::perms{0600});
}

TEST_F(TraceTest, ChecksTargetNames) {
  const std::string longest = folder_.Path() + std::string(250 - folder_.Path().size(), '/');
  const std::pair<std::string, bool> rows[] = {
      {folder_.Path("a.LOG"), true}, {folder_.Path("a.dat"), false},
      {longest + "5.txt", true},     {longest + "56.txt", false},
      {"Server,/none stored", true}, {"server2 behind a comma", false}};
  for (const auto& [name, accepted] : rows) {
    const testing::TraceCapture trace;
    TraceSetFile(name);
    const std::vector<std::string> lines = trace.Lines();
    EXPECT_EQ(!lines.empty() && lines[0].ends_with(", '" + name + "'"), accepted) << name;
  }
}

TEST_F(TraceTest, FormatsArgumentsAndCutsWhatIsTooLong) {
  static std::string last;
  static const char* volatile null = nullptr;
  TraceSetCallback([](const char* line, std::size_t length) { last.assign(line, length); });
  TraceWrite("%hhd %zu %lld %#X %c %%", static_cast<signed char>(-1), SIZE_MAX, -5LL, 31u, 'a');
  EXPECT_EQ(last, "-1 18446744073709551615 -5 0X1F a %\n");
  TraceWrite("[%5s|%*s|%.*s|%.3d|%.*s]", "ab", -5, "ab", 1, "ab", 7, -1, "ab");
  EXPECT_EQ(last, "[   ab|ab   |a|007|ab]\n");
  TraceWrite("%s '%2s'", null, null);
  EXPECT_EQ(last, "[null] '(null)'\n");
  TraceWrite("%d%d%d%d%d%d%d%d%.*s%% %s", 1, 2, 3, 4, 5, 6, 7, 8, 1, "ab", null);
  EXPECT_EQ(last, "12345678a% (null)\n") << "the count steps over ten";
  TraceWrite("%d%d%d%d%d%d%d%d%d%d%%", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
  EXPECT_EQ(last, "INTERNAL PROBLEM, TOO MANY ARGUMENTS") << "no line end, as intended";
  TraceWrite(
      "0123456789012345678901234567890123456789012345678901234567890123456789"
      "012345678901234567890123456789012345678901234567890123%-9d",
      1);
  EXPECT_EQ(last.substr(last.size() - 5), "23%-\n") << "the format is cut inside a directive";
  TraceWrite("%s", std::string(20'000, 'x').c_str());
  EXPECT_EQ(last, std::string(kMaxTraceLine - 1, 'x') + '\n');
}

TEST_F(TraceTest, DelayFollowsEachLine) {
  TraceSetCallback([](const char* /*line*/, std::size_t /*length*/) {});
  TraceSetDelay(30);
  const std::int64_t before = MonotonicMilliseconds();
  TraceWrite("one");
  EXPECT_GE(MonotonicMilliseconds() - before, 30);
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
  ASSERT_EQ(::mkfifo(folder_.Path("pipe.log").c_str(), 0600), 0);
  InitProductIdentity();
  SetFile("pipe.log");  // must not block
  folder_.Write("~qixdata.cer", "older and longer");
  fs::create_symlink(folder_.Write("kept", "kept"), folder_.Path("~qixlink"));
  fs::create_hard_link(folder_.Write("second name", "kept"), folder_.Path("~qixhard"));
  const std::uint8_t data[] = {'d', 0, 'a'};
  for (const char* const name : {"data.cer", "link", "hard"}) TraceDump(name, data);
  EXPECT_EQ(folder_.Read("~qixdata.cer"), std::string("d\0a", 3));
  EXPECT_EQ(folder_.Read("kept"), "kept");
  EXPECT_EQ(folder_.Read("second name"), "kept");
  fs::create_symlink(folder_.Path("made by the trace"), folder_.Path("link.log"));
  fs::create_hard_link(folder_.Path("second name"), folder_.Path("hard.log"));
  fs::create_symlink(folder_.Path(), folder_.Path("folder"));
  SetFile("folder/a.log");
  EXPECT_NE(folder_.Read("a.log"), "") << "a link on the way is followed";
  for (const char* const name : {"link.log", "hard.log", "pipe.log"}) {
    ::testing::internal::CaptureStderr();
    SetFile(name);
    for (int i = 0; i < 2; ++i) TraceWrite("lost");
    EXPECT_THAT(
        ::testing::internal::GetCapturedStderr(),
        MatchesRegex("qixxwatch: trace '[^\n]*" + std::string(name) + "' is refused: [^\n]*\n"));
  }
  EXPECT_FALSE(fs::exists(folder_.Path("made by the trace")));
  folder_.Write("before/a.log", "");
  SetFile("before/a.log");
  fs::rename(folder_.Path("before"), folder_.Path("behind"));
  fs::create_directory_symlink(folder_.Path(), folder_.Path("before"));
  const std::string above = folder_.Read("a.log");
  TraceWrite("lost");
  EXPECT_EQ(folder_.Read("a.log"), above) << "a folder became a link between two lines";
  EXPECT_EQ(folder_.Read("second name"), "kept");
  // Only a privileged run can give a file away.
  if (::chown(folder_.Write("~qixtheirs", "kept").c_str(), 1, 1) != 0) return;
  ASSERT_EQ(::chown(folder_.Write("theirs.log", "kept").c_str(), 1, 1), 0);
  ASSERT_EQ(::lchown(folder_.Path("folder").c_str(), 1, 1), 0);
  SetFile("folder/b.log");
  TraceDump("b", data);
  EXPECT_FALSE(fs::exists(folder_.Path("b.log")) || fs::exists(folder_.Path("~qixb")));
  SetFile("a.log");
  TraceDump("theirs", data);
  SetFile("theirs.log");
  EXPECT_EQ(folder_.Read("~qixtheirs"), "kept");
  EXPECT_EQ(folder_.Read("theirs.log"), "kept");
  // In a folder like /tmp the system itself may open no such file.
  fs::permissions(folder_.Path(), fs::perms{01777});
  ::testing::internal::CaptureStderr();
  SetFile("theirs.log");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr("' is refused: "));
}

}  // namespace
}  // namespace qixx::runtime
