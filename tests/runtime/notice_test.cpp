// Lines on standard error: never waited for, never twice, nothing in them that moves a terminal.
#include "runtime/notice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "runtime/descriptor.h"

namespace qixx::testing {
namespace {

/// A pipe in the place of standard error, for a scope.
struct ErrorPipe {
  ErrorPipe() {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
    reader = runtime::Descriptor(ends[0]);
  }
  ~ErrorPipe() { ::dup2(kept.Get(), STDERR_FILENO); }
  [[nodiscard]] std::string Read() const {
    char text[4096];
    const ssize_t length = ::read(reader.Get(), text, sizeof text);
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
  }

  const runtime::Descriptor kept{::dup(STDERR_FILENO)};
  runtime::Descriptor reader;
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
  ::fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
  while (::write(STDERR_FILENO, "x", 1) == 1) continue;
  ::fcntl(STDERR_FILENO, F_SETFL, 0);  // it blocks, as everybody's does
  errno = EDOM;
  runtime::Notify({"lost in a full pipe"});
  pipe.reader.Close();
  runtime::Notify({"lost in a broken pipe"});
  ::close(STDERR_FILENO);
  runtime::Notify({"lost without standard error"});
  EXPECT_EQ(errno, EDOM);
  ::signal(SIGPIPE, SIG_DFL);
}

}  // namespace
}  // namespace qixx::testing
