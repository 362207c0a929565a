#include "runtime/trace.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <utility>

#include "runtime/clock.h"
#include "runtime/descriptor.h"
#include "runtime/file_place.h"
#include "runtime/files.h"
#include "runtime/journal.h"
#include "runtime/no_destructor.h"
#include "runtime/notice.h"
#include "runtime/product.h"
#include "runtime/settings.h"
#include "runtime/spare_trace.h"
#include "runtime/text.h"

namespace qixx::runtime {
namespace {

constexpr std::string_view kSection = "Trace";
constexpr std::string_view kCallSection = "Trace Call";
constexpr std::string_view kServerHead = "server";
constexpr std::string_view kTooManyArguments = "INTERNAL PROBLEM, TOO MANY ARGUMENTS";
constexpr unsigned kMaxSlots = 10;
constexpr off_t kMaxTraceFile = 104'857'600;
constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr time_t kSizeCheckSeconds = 3'600;
constexpr std::uint32_t kDayMilliseconds = 86'400'000;
constexpr std::int32_t kReleaseAll = -1;

// --- building a line --------------------------------------------------------------------------

/// A text of limited length. What does not fit is cut, but for a line end, which always fits.
template <std::size_t kCapacity>
class CutText {
 public:
  void Clear() { length_ = 0; }
  void Append(std::string_view text) {
    const std::size_t length = std::min(text.size(), kCapacity - length_);
    std::copy_n(text.data(), length, buffer_ + length_);
    length_ += length;
    buffer_[length_] = '\0';
  }
  void AppendFormat(const char* format, va_list arguments) {
    const std::size_t room = kCapacity - length_;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the list is the caller's.
    const int length = std::vsnprintf(buffer_ + length_, room + 1, format, arguments);
    if (length > 0) length_ += std::min(static_cast<std::size_t>(length), room);
  }
  void EndLine() {
    buffer_[length_++] = '\n';
    buffer_[length_] = '\0';
  }
  [[nodiscard]] const char* Text() const { return buffer_; }
  [[nodiscard]] std::string_view View() const { return {buffer_, length_}; }

 private:
  char buffer_[kCapacity + sizeof "\n"] = {};
  std::size_t length_ = 0;
};

using LineText = CutText<kMaxTraceLine - 1>;

/// What the count of the argument slots finds in a format.
struct SlotCount {
  bool tooMany = false;
  std::size_t end = 0;  ///< null texts are guarded before this position only
};

/// Only a '*' or ".*" directly behind the '%' is seen, ".*" takes one slot more than it needs, and
/// a count that steps over ten is let through. Intended: formats in use rely on the result.
SlotCount CountSlots(std::string_view format) {
  SlotCount slots;
  unsigned count = 0;
  std::size_t percent = format.find('%');
  while (percent != std::string_view::npos && count < kMaxSlots) {
    slots.end = percent + 1;
    const std::string_view behind = format.substr(slots.end);
    if (behind.starts_with('%')) {
      ++slots.end;
    } else {
      if (behind.starts_with('*')) ++count;
      if (behind.starts_with(".*")) count += 2;
      ++count;
    }
    percent = format.find('%', slots.end);
  }
  slots.tooMany = count == kMaxSlots && percent != std::string_view::npos;
  return slots;
}

/// Takes the arguments of a directive; whether the one that it shows is a null pointer.
bool IsNull(std::string_view directive, va_list& arguments) {
  if (directive.back() == '%') return false;
  // NOLINTBEGIN(clang-analyzer-valist.Uninitialized): the list is the caller's copy.
  for (auto stars = std::ranges::count(directive, '*'); stars > 0; --stars)
    (void)va_arg(arguments, int);
  if (directive.back() == 's' || directive.back() == 'p') {
    return va_arg(arguments, void*) == nullptr;
  }
  const bool isLongLong = directive.find("ll") != std::string_view::npos ||
                          directive.find('j') != std::string_view::npos;
  // An int takes a word of its own, as a long does.
  static_cast<void>(isLongLong ? va_arg(arguments, long long) : va_arg(arguments, long));
  // NOLINTEND(clang-analyzer-valist.Uninitialized)
  return false;
}

constexpr std::string_view kNullText = "%.0s[null]";  // takes the argument, prints nothing of it
using FormatText = CutText<kMaxTraceFormat + kMaxSlots * kNullText.size() + 1>;

/// The format in which each bare "%s" before `end` whose argument is null says "[null]" instead.
/// The arguments are looked at, and are the caller's still.
FormatText GuardNullTexts(std::string_view format, std::size_t end, va_list arguments) {
  FormatText guarded;
  va_list words;
  va_copy(words, arguments);
  std::size_t copied = 0;
  std::size_t percent = format.find('%');
  while (percent != std::string_view::npos) {
    const std::size_t conversion = format.find_first_not_of("-+ #0123456789.*hljzt", percent + 1);
    if (conversion == std::string_view::npos) {
      // The cut has left a part of a directive; it is written as it stands.
      guarded.Append(format.substr(copied, percent - copied));
      guarded.Append("%");
      copied = percent;
      break;
    }
    const std::string_view directive = format.substr(percent, conversion + 1 - percent);
    if (IsNull(directive, words) && directive == "%s" && percent < end) {
      guarded.Append(format.substr(copied, percent - copied));
      guarded.Append(kNullText);
      copied = conversion + 1;
    }
    percent = format.find('%', conversion + 1);
  }
  guarded.Append(format.substr(copied));
  va_end(words);
  return guarded;
}

// --- the state --------------------------------------------------------------------------------

/// What a target or a callback needs; made with the first one, and never destroyed, since lines are
/// written behind the static destructors.
struct TraceState {
  CCritical lock;
  std::string target;
  std::string file;  ///< the target, its folder as it was found
  LineText line;
  std::int32_t release = kReleaseAll;  ///< negative: all lines pass; else so many more
  bool callMode = false;
  TraceLineCallback callback = nullptr;
  std::int32_t delayMilliseconds = 0;
  bool refusalTold = false;  ///< once for a target
  int openError = 0;         ///< why the last line was lost, when nothing was refused

  [[nodiscard]] bool HasTarget() const { return !target.empty(); }
  [[nodiscard]] bool HasReceiver() const { return HasTarget() || callback != nullptr; }
  /// Whether a line may pass; uses up one release.
  bool PassesRelease() {
    if (release == 0) return false;
    if (release > 0) --release;
    return true;
  }
};

/// Null while tracing is off.
constinit std::atomic<TraceState*> installed{nullptr};

/// Of the process, whatever the target; guarded by the lock of the installed state.
constinit time_t nextSizeCheck = 0;
constinit std::uint32_t clockBase = 0;

/// Whose lines this thread writes, 0 for its own.
constinit thread_local ThreadId shownThread = 0;

TraceState* Installed() {
  return installed.load(std::memory_order_acquire);
}

TraceState& Install() {
  static NoDestructor<TraceState> state;
  installed.store(&*state, std::memory_order_release);
  return *state;
}

/// Tracing leaves the caller's error number alone.
class KeepErrorNumber {
 public:
  KeepErrorNumber() : kept_(errno) {}
  ~KeepErrorNumber() { errno = kept_; }
  KeepErrorNumber(const KeepErrorNumber&) = delete;
  KeepErrorNumber& operator=(const KeepErrorNumber&) = delete;

 private:
  int kept_;
};

// --- target names -----------------------------------------------------------------------------

bool IsServerTarget(std::string_view name) {
  return StartsWithNoCase(name, kServerHead);
}

/// A server target is judged by the stored name, not by its own. Intended: the suite's set-ups rely
/// on a first server name being taken as it is.
bool IsAcceptedTarget(std::string_view name, std::string_view stored) {
  if (!IsServerTarget(name)) return name == kJournalTarget || IsTraceFileName(name);
  const std::size_t comma = stored.find(',', 1);
  return comma == std::string_view::npos || IsTraceFileName(stored.substr(comma + 1));
}

/// The part of a target's path up to its last separator, empty when it has none.
std::string_view DirectoryOf(std::string_view target) {
  if (IsServerTarget(target)) {
    const std::size_t comma = target.find(',');
    target = comma == std::string_view::npos ? std::string_view{} : target.substr(comma + 1);
  }
  std::size_t separator = target.rfind('\\');
  if (separator == std::string_view::npos) separator = target.rfind('/');
  return target.substr(0, separator + 1);
}

// --- writing a line ---------------------------------------------------------------------------

/// Milliseconds within the UTC day since `base`, with one wrap at midnight.
std::uint32_t ElapsedMilliseconds(std::uint32_t base) {
  timeval time = {};
  ::gettimeofday(&time, nullptr);
  const auto now = static_cast<std::uint32_t>(time.tv_sec % 86'400 * 1'000 + time.tv_usec / 1'000);
  return now < base ? now - base + kDayMilliseconds : now - base;
}

/// Process, thread, and the time since the first stamped line of the process.
void AppendHeader(LineText& line) {
  if (clockBase == 0) clockBase = ElapsedMilliseconds(0);
  const std::uint32_t elapsed = ElapsedMilliseconds(clockBase);
  const ThreadId thread = shownThread != 0 ? shownThread : ThreadSelf();
  char header[64];
  std::snprintf(header, sizeof header, "[%.4u:%.8x] %.2u.%.2u.%.2u.%.3u ",
                static_cast<unsigned>(::getpid()), static_cast<unsigned>(thread & 0xFFFFFFFF),
                elapsed / 3'600'000 % 100, elapsed / 60'000 % 60, elapsed / 1'000 % 60,
                elapsed % 1'000);
  line.Append(header);
}

/// A path with the links of its folders followed, as far as they are this user's or root's; as it
/// stands while there is no such folder.
std::string FollowFolders(const std::string& path) {
  const FilePlace place = FindFile(path).named;
  std::error_code failed;
  const auto folder =
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(place.Folder()), failed);
  return failed ? path : (folder / place.Name()).string();
}

/// Follows no link, not even of a folder: whoever owns one could put it there between two lines. A
/// system that is too old to be asked for that follows those of folders.
int OpenWithoutLinks(const char* path, int flags) {
  const mode_t mode = (flags & O_CREAT) != 0 ? kOwnerOnly : 0;
  open_how how = {};
  how.flags = static_cast<unsigned>(flags);
  how.mode = mode;
  how.resolve = RESOLVE_NO_SYMLINKS;
  const auto opened = static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how));
  if (opened >= 0 || (errno != ENOSYS && errno != EPERM)) return opened;
  return ::open(path, flags, mode);
}

/// Whether `error` of an open means that something else than a file of this user's has the name.
/// The system itself may refuse somebody else's file in a folder like /tmp.
bool IsStranger(const std::string& path, int error) {
  if (error != EACCES) return error == ELOOP || error == ENXIO;  // a link, a pipe without a reader
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && status.st_uid != ::geteuid();
}

/// Opens a regular file of this user's with one name, without following a link. In a folder of
/// somebody else's any other may be put there: to be written by a service that may write more than
/// they, or to be read by them. Not open, and `refused`, when the name leads to anything else;
/// otherwise errno tells why.
Descriptor OpenOwn(const std::string& path, int flags, bool& refused) {
  constexpr int kSafe = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  Descriptor file(OpenWithoutLinks(path.c_str(), flags | kSafe));
  const int error = errno;
  const struct stat status = StatusOf(file);
  const bool isOwn =
      S_ISREG(status.st_mode) && status.st_uid == ::geteuid() && status.st_nlink <= 1;
  refused = file.IsOpen() ? !isOwn : IsStranger(path, error);
  if (refused) file.Close();
  errno = error;
  return file;
}

bool Empty(const Descriptor& file) {
  return ::ftruncate(file.Get(), 0) == 0;
}

/// Empties a target that has grown too large. Looks once an hour, at the first line, and when the
/// clock was put back.
void CheckTargetSize(const TraceState& state) {
  const time_t now = ::time(nullptr);
  const bool early = now <= nextSizeCheck && nextSizeCheck - now <= kSizeCheckSeconds;
  if (early || IsServerTarget(state.target) || state.target == kJournalTarget) return;
  nextSizeCheck = now + kSizeCheckSeconds;
  bool refused = false;
  const Descriptor file = OpenOwn(state.file, O_WRONLY, refused);
  if (StatusOf(file).st_size > kMaxTraceFile) Empty(file);
}

/// Opened anew for each line: others write the same file, and a deleted one comes back.
void AppendToTarget(TraceState& state, std::string_view line) {
  if (IsServerTarget(state.target)) {
    state.target[0] = 's';  // Intended: server targets are stored so; nothing else depends on it.
    return;
  }
  if (state.target == kJournalTarget) {
    SendToJournal(line.substr(0, line.find_last_not_of('\n') + 1));
    return;
  }
  bool refused = false;
  const Descriptor file = OpenOwn(state.file, O_WRONLY | O_APPEND | O_CREAT, refused);
  state.openError = file.IsOpen() || refused ? 0 : errno;
  WriteFully(file, line);
  if (refused && !std::exchange(state.refusalTold, true)) {
    // There is no trace to say it in.
    Notify({"trace '", state.target, "' is refused: no regular file of this user with one name"});
  }
}

void HandOut(TraceState& state, std::string_view line) {
  if (state.HasTarget()) AppendToTarget(state, line);
  if (state.callback != nullptr) state.callback(line.data(), line.size());
  SleepMilliseconds(state.delayMilliseconds);
}

void WriteDateLine(const TraceState& state) {
  const time_t now = ::time(nullptr);
  tm local = {};
  ::localtime_r(&now, &local);
  char date[80] = "";
  std::strftime(date, sizeof date, "%F %T", &local);
  TraceWrite("Trace - Date %s, '%s'", date, state.target.c_str());
}

void SetTarget(TraceState& state, std::string_view name) {
  state.file = IsServerTarget(name) ? std::string() : FollowFolders(std::string(name));
  state.target = name;
  state.refusalTold = false;
  state.openError = 0;
}

/// At the start only: later a line that cannot be written is lost in silence.
void TellUnusable(const std::string& path) {
  if (IsServerTarget(path)) return;
  TraceState* const state = Installed();
  if (state == nullptr) return;
  const CriticalScope hold(&state->lock);
  if (state->target != path) {
    Notify({"no trace: '", path, "' ends neither in .log nor in .txt"});
  } else if (state->openError != 0) {
    Notify({"no trace: '", path, "' cannot be opened: ", ErrorText(state->openError)});
  }
}

}  // namespace

void TraceWrite(const char* format, ...) {
  TraceState* const state = Installed();
  if (state == nullptr) return;
  const KeepErrorNumber keep;
  const CriticalScope hold(&state->lock);
  if (!state->PassesRelease() || !state->HasReceiver()) return;
  if (state->HasTarget()) CheckTargetSize(*state);
  LineText& line = state->line;
  line.Clear();
  if (state->callback == nullptr) AppendHeader(line);
  const std::string_view shown = ViewOf(format).substr(0, kMaxTraceFormat);
  if (const SlotCount slots = CountSlots(shown); slots.tooMany) {
    line.Append(kTooManyArguments);
  } else {
    va_list arguments;
    va_start(arguments, format);
    line.AppendFormat(GuardNullTexts(shown, slots.end, arguments).Text(), arguments);
    va_end(arguments);
    line.EndLine();
  }
  HandOut(*state, line.View());
}

std::optional<TraceSettings> TraceReadSettings(std::string_view component) {
  const auto settings = OpenSettings(SettingsScope::kUserThenSystem);
  if (settings == nullptr) return std::nullopt;
  std::optional<std::string> path;
  if (!component.empty()) path = settings->GetText(kSection, component);
  // An entry that is present and empty switches the component off, whatever "File" says.
  if (!path) path = settings->GetText(kSection, "File");
  TraceSettings found{.path = path.value_or("")};
  if (!component.empty() && found.path.empty()) {
    found.path = settings->GetText(kCallSection, component).value_or("");
    found.callMode = !found.path.empty();
  }
  found.useLocalTime = settings->GetBoolean(kSection, "UseLocalTime").value_or(false);
  if (found.path.empty()) return std::nullopt;
  return found;
}

void TraceInit(std::string_view component) {
  const std::optional<TraceSettings> settings = TraceReadSettings(component);
  if (!settings) return;
  if (settings->callMode) {
    TraceSetCallTarget(settings->path, 0);
  } else {
    TraceSetFile(settings->path);
  }
  TellUnusable(settings->path);
}

bool IsTraceFileName(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return false;
  const std::string_view extension = name.substr(dot);
  return EqualsNoCase(extension, ".txt") || EqualsNoCase(extension, ".log");
}

void TraceSetFile(std::string_view name) {
  if (name.empty()) return TraceSetCallTarget(std::nullopt, 0);
  if (name.size() > kMaxText) return;
  TraceState& state = Install();
  const CriticalScope hold(&state.lock);
  if (IsAcceptedTarget(name, state.target)) SetTarget(state, name);
  if (state.HasTarget()) WriteDateLine(state);
}

void TraceSetCallTarget(std::optional<std::string_view> name, std::int32_t counter) {
  if (name && name->size() > kMaxText) return;
  TraceState& state = Install();
  const CriticalScope hold(&state.lock);
  state.callMode = name.has_value();
  state.release = name ? counter : kReleaseAll;
  SetTarget(state, name.value_or(""));
  if (!state.HasReceiver()) installed.store(nullptr, std::memory_order_release);
}

void TraceReleaseOneLine() {
  TraceState* const state = Installed();
  if (state == nullptr) return;
  const CriticalScope hold(&state->lock);
  if (state->callMode) state->release = 1;
}

bool TraceIsOn() {
  TraceState* const state = Installed();
  if (state == nullptr) return false;
  const CriticalScope hold(&state->lock);
  return state->HasReceiver();
}

void TraceDump(std::string_view name, std::span<const std::uint8_t> data) {
  TraceState* const state = Installed();
  if (state == nullptr || data.empty()) return;
  const KeepErrorNumber keep;
  const CriticalScope hold(&state->lock);
  // The journal has no side files.
  if (!state->HasTarget() || state->target == kJournalTarget || !state->PassesRelease()) return;
  std::string path(DirectoryOf(state->target));
  if (path.empty()) path = GetTempDirectory().value_or("");
  if (path.empty()) return;
  path.append("~").append(Product().prefix).append(name);
  bool refused = false;
  const Descriptor file = OpenOwn(FollowFolders(path), O_WRONLY | O_CREAT, refused);
  if (file.IsOpen() && Empty(file)) WriteFully(file, AsText(data));
}

void TraceOnBehalfOf(ThreadId thread) {
  shownThread = thread;
}

CCritical& TraceLock() {
  return Install().lock;
}

// --- spare ------------------------------------------------------------------------------------

void TraceSetCallback(TraceLineCallback callback) {
  TraceState* const state = callback != nullptr ? &Install() : Installed();
  if (state == nullptr) return;
  const CriticalScope hold(&state->lock);
  state->callback = callback;
}

void TraceSetDelay(std::int32_t milliseconds) {
  TraceState& state = Install();
  const CriticalScope hold(&state.lock);
  state.delayMilliseconds = milliseconds;
}

void TraceStop() {
  // No line is ever queued, so none is waiting.
}

}  // namespace qixx::runtime
