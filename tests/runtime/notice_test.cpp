// Lines on standard error: never waited for, never twice, nothing in them that moves a terminal.
#include "runtime/notice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

namespace qixx::testing {
namespace {

/// A pipe in the place of standard error, for a scope.
class ErrorPipe {
 public:
  ErrorPipe() : kept_(::dup(STDERR_FILENO)) {
    EXPECT_EQ(::pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0);
    ::fcntl(ends_[1], F_SETFL, 0);  // the one to write to blocks, as everybody's does
    ::dup2(ends_[1], STDERR_FILENO);
    ::close(ends_[1]);
  }
  ~ErrorPipe() {
    ::dup2(kept_, STDERR_FILENO);
    ::close(kept_);
    CloseReader();
  }
  void CloseReader() {
    if (ends_[0] >= 0) ::close(ends_[0]);
    ends_[0] = -1;
  }
  void Fill() {
    ::fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    while (::write(STDERR_FILENO, "x", 1) == 1) continue;
    ::fcntl(STDERR_FILENO, F_SETFL, 0);
  }
  [[nodiscard]] std::string Read() const {
    char text[4096];
    const ssize_t length = ::read(ends_[0], text, sizeof text);
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
  }

 private:
  int kept_;
  int ends_[2] = {-1, -1};
};

TEST(Notice, IsOneCleanLineThatFits) {
  const ErrorPipe pipe;
  runtime::Notify({"caf\xC3\xA9\n\x1b[2J\x7F"});
  EXPECT_EQ(pipe.Read(), "qixxwatch: caf\xC3\xA9?\?[2J?\n");
  runtime::Notify({"\xC2\x9B", "2J \x9B", "2J \xC2\xA0\xE2\x82\xAC \xC2"});
  EXPECT_EQ(pipe.Read(), "qixxwatch: ?2J ?2J \xC2\xA0\xE2\x82\xAC ?\n");
  runtime::Notify({std::string(5000, 'x')});
  const std::string cut = pipe.Read();
  EXPECT_EQ(cut.size(), runtime::kMaxNotice);
  EXPECT_TRUE(cut.ends_with("x\n"));
}

TEST(Notice, IsSaidOnce) {
  const ErrorPipe pipe;
  for (const char* text : {"one", "two", "one", "two"}) runtime::NotifyOnce(text);
  EXPECT_EQ(pipe.Read(), "qixxwatch: one\nqixxwatch: two\n");
  for (int i = 0; i < 2000; ++i) {
    runtime::NotifyOnce("endless " + std::to_string(i));
    if (i % 100 == 0) static_cast<void>(pipe.Read());
  }
  EXPECT_EQ(pipe.Read(), "") << "of endless different ones there are no more";
}

TEST(Notice, IsNeverWaitedFor) {
  ::signal(SIGPIPE, SIG_IGN);
  ErrorPipe pipe;
  pipe.Fill();
  errno = EDOM;
  runtime::Notify({"lost in a full pipe"});
  pipe.CloseReader();
  runtime::Notify({"lost in a broken pipe"});
  ::close(STDERR_FILENO);
  runtime::Notify({"lost without standard error"});
  EXPECT_EQ(errno, EDOM);
  ::signal(SIGPIPE, SIG_DFL);
}

}  // namespace
}  // namespace qixx::testing
