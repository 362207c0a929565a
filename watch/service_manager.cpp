#include "watch/service_manager.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <utility>

#include "runtime/clock.h"
#include "runtime/no_destructor.h"
#include "runtime/text.h"

namespace qixx::watch {
namespace {

constexpr std::uint64_t kMicrosecondsPerMillisecond = 1000;
/// A sign of life is sent after a half of the time that the manager waits for one. A quarter at the
/// most is slept meanwhile.
constexpr std::int64_t kSignsPerTime = 2;
constexpr std::int64_t kPausesPerTime = 4;
/// Longer times are taken for this one.
constexpr std::uint64_t kMaxTime = 86'400'000;

std::optional<std::string> TakeVariable(const char* name) {
  const char* const value = ::getenv(name);
  if (value == nullptr) return std::nullopt;
  std::string taken(value);
  ::unsetenv(name);
  return taken;
}

/// The time in milliseconds within which the manager wants a sign of life, 0 for none.
std::int64_t TakeWatchdogTime() {
  const std::optional<std::string> time = TakeVariable("WATCHDOG_USEC");
  const std::optional<std::string> process = TakeVariable("WATCHDOG_PID");
  const bool isOurs =
      !process || runtime::ParseDecimal(*process) == static_cast<std::uint64_t>(::getpid());
  if (!time || !isOurs) return 0;
  const std::uint64_t milliseconds = runtime::ParseDecimal(*time) / kMicrosecondsPerMillisecond;
  return static_cast<std::int64_t>(std::min(milliseconds, kMaxTime));
}

}  // namespace

ServiceManager ServiceManager::TakeFromEnvironment() {
  ServiceManager manager;
  const std::optional<std::string> name = TakeVariable("NOTIFY_SOCKET");
  const std::int64_t time = TakeWatchdogTime();
  if (!name || !manager.Connect(*name)) return manager;
  manager.thread_ = ::gettid();
  if (time == 0) return manager;
  manager.interval_ = std::max<std::int64_t>(time / kSignsPerTime, 1);
  manager.longestPause_ = static_cast<unsigned>(std::max<std::int64_t>(time / kPausesPerTime, 1));
  return manager;
}

/// A path, or behind a '@' a name that is in no file system.
bool ServiceManager::Connect(std::string_view name) {
  const bool isAbstract = name.starts_with('@');
  if (name.size() < 2 || (!isAbstract && !name.starts_with('/'))) return false;
  if (name.size() >= sizeof address_.sun_path) return false;
  address_.sun_family = AF_UNIX;
  name.copy(address_.sun_path, name.size());
  if (isAbstract) address_.sun_path[0] = '\0';
  const std::size_t terminator = isAbstract ? 0 : 1;
  addressLength_ =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + terminator);
  socket_ = runtime::Descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return socket_.IsOpen();
}

bool ServiceManager::Send(std::string_view message) const {
  const ssize_t sent =
      ::sendto(socket_.Get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address_), addressLength_);
  return sent == static_cast<ssize_t>(message.size());
}

void ServiceManager::Ready() {
  if (!IsThere()) return;
  isReadyUnsent_ = !Send("READY=1");
  lastSign_ = runtime::MonotonicMilliseconds();
}

void ServiceManager::Status(std::string_view line) {
  if (!IsThere()) return;
  std::string message("STATUS=");
  message += line;
  if (message == status_) return;
  status_ = std::move(message);
  isStatusUnsent_ = !Send(status_);
}

void ServiceManager::Stopping() {
  // What was not taken until now is no longer so.
  isReadyUnsent_ = isStatusUnsent_ = false;
  if (IsThere()) Send("STOPPING=1");
}

void ServiceManager::Alive() {
  if (!IsThere() || ::gettid() != thread_) return;
  if (isReadyUnsent_) isReadyUnsent_ = !Send("READY=1");
  if (isStatusUnsent_) isStatusUnsent_ = !Send(status_);
  if (interval_ == 0) return;
  const std::int64_t now = runtime::MonotonicMilliseconds();
  if (now - lastSign_ >= interval_ && Send("WATCHDOG=1")) lastSign_ = now;
}

ServiceManager& SystemServiceManager() {
  // Never destroyed: a command on a thread of its own may ask it while the process ends.
  static runtime::NoDestructor<ServiceManager> manager(ServiceManager::TakeFromEnvironment());
  return *manager;
}

}  // namespace qixx::watch
