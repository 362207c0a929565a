// Lines on standard error: never waited for, never twice, nothing in them that moves a terminal.
#include "runtime/notice.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/descriptor.h"

namespace qixx::runtime {
namespace {

template <typename Operation>
std::string SaidBy(Operation operation) {
  ::testing::internal::CaptureStderr();
  operation();
  return ::testing::internal::GetCapturedStderr();
}

TEST(Notice, IsOneCleanLineThatFits) {
  EXPECT_EQ(SaidBy([] { Notify({"caf\xC3\xA9\n\x1b[2J\x7F"}); }),
            "qixxwatch: caf\xC3\xA9?\?[2J?\n");
  EXPECT_EQ(SaidBy([] {
              Notify({"\xC2\x9B", "2J \x9B", "2J \xC2\xA0\xE2\x82\xAC \xC2"});
            }),
            "qixxwatch: ?2J ?2J \xC2\xA0\xE2\x82\xAC ?\n");
  EXPECT_THAT(SaidBy([] { Notify({std::string(5000, 'x')}); }),
              ::testing::AllOf(::testing::SizeIs(kMaxNotice), ::testing::EndsWith("x\n")));
}

TEST(Notice, IsSaidOnce) {
  EXPECT_EQ(SaidBy([] { NotifyOnce("one"), NotifyOnce("two"), NotifyOnce("one"); }),
            "qixxwatch: one\nqixxwatch: two\n");
}

TEST(Notice, IsNeverWaitedFor) {
  const Descriptor kept(::dup(STDERR_FILENO));
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  ::dup2(ends[1], STDERR_FILENO);
  ::close(ends[1]);
  while (::write(STDERR_FILENO, "x", 1) == 1) continue;
  ::fcntl(STDERR_FILENO, F_SETFL, 0);  // it blocks, as everybody's does
  errno = EDOM;
  Notify({"lost in a full pipe"});
  EXPECT_EQ(errno, EDOM);
  ::dup2(kept.Get(), STDERR_FILENO);
  ::close(ends[0]);
}

}  // namespace
}  // namespace qixx::runtime
