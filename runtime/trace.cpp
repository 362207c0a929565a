#include "runtime/trace.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <new>
#include <string_view>
#include <type_traits>

#include "runtime/descriptor.h"
#include "runtime/files.h"
#include "runtime/settings.h"
#include "runtime/sync.h"
#include "runtime/text.h"

namespace qixx::runtime {
namespace {

constexpr const char* kSection = "Trace";
constexpr const char* kCallSection = "Trace Call";
constexpr std::string_view kServerHead = "server";
constexpr std::string_view kNullText = "[null]";
constexpr std::string_view kTooManyArguments = "INTERNAL PROBLEM, TOO MANY ARGUMENTS";
constexpr unsigned kMostSlots = 10;
constexpr off_t kMostFileBytes = 104'857'600;
constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr time_t kSizeCheckSeconds = 3'600;
constexpr std::uint32_t kDayMilliseconds = 86'400'000;
constexpr std::int32_t kReleaseAll = -1;

/// All of it is constant-initialised and trivially destructible, hence the bare pointers: lines are
/// written before the static constructors have run and after the static destructors. What is not
/// atomic belongs to the lock.
struct TraceState {
  char target[kTextSize] = {};
  char* lineArea = nullptr;
  std::atomic<CCritical*> lock{nullptr};
  std::int32_t release = kReleaseAll;  ///< negative: all lines pass; else so many more
  bool callMode = false;
  TraceLineCallback callback = nullptr;
  unsigned callbackDepth = 0;  ///< callbacks running, that is lines still being handed out
  std::atomic<std::int32_t> delayMilliseconds{0};
  time_t nextSizeCheck = 0;
  std::uint32_t clockBase = 0;
  std::atomic<bool> useLocalTime{false};  ///< known, and without effect on the stamp, as intended
};
static_assert(std::is_trivially_destructible_v<TraceState>);

constinit TraceState state;

CCritical* TraceLock() {
  return state.lock.load(std::memory_order_acquire);
}

/// The lock, made on the first need; null when memory runs out, and then nothing is installed.
CCritical* MakeTraceLock() {
  if (CCritical* present = TraceLock(); present != nullptr) return present;
  auto* made = new (std::nothrow) CCritical;
  CCritical* present = nullptr;
  if (made == nullptr || state.lock.compare_exchange_strong(present, made)) return made;
  delete made;
  return present;
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

bool HasAcceptedExtension(std::string_view name) {
  const std::size_t dot = FindCharBack(name, '.');
  if (dot == std::string_view::npos) return false;
  const std::string_view extension = name.substr(dot);
  return EqualsNoCase(extension, ".txt") || EqualsNoCase(extension, ".log");
}

bool IsServerTarget(std::string_view name) {
  return StartsWithNoCase(name, kServerHead);
}

/// A server target is judged by the name that is still stored, as intended.
bool IsAcceptedTarget(std::string_view name, std::string_view stored) {
  if (!IsServerTarget(name)) return HasAcceptedExtension(name);
  const std::size_t comma = stored.find(',', 1);
  return comma == std::string_view::npos || HasAcceptedExtension(stored.substr(comma + 1));
}

/// The part of the target's path up to its last separator, empty when it has none.
std::string_view TargetDirectory() {
  std::string_view path = TextOf(state.target);
  if (IsServerTarget(path)) {
    const std::size_t comma = FindChar(path, ',');
    path = comma == std::string_view::npos ? std::string_view{} : path.substr(comma + 1);
  }
  std::size_t separator = FindCharBack(path, '\\');
  if (separator == std::string_view::npos) separator = FindCharBack(path, '/');
  return separator == std::string_view::npos ? std::string_view{} : path.substr(0, separator + 1);
}

// --- building a line --------------------------------------------------------------------------

/// The line under construction. What passes the end of the area is cut, so that the line end always
/// fits.
class TraceLine {
 public:
  explicit TraceLine(char* area) : area_(area) { area_[0] = '\0'; }

  void Append(std::string_view text) {
    const std::size_t length = std::min(text.size(), kCapacity - length_);
    std::copy_n(text.data(), length, area_ + length_);
    length_ += length;
    area_[length_] = '\0';
  }
  /// `directive` is a single printf directive for a value of exactly this type.
  template <typename Value>
  void AppendValue(const char* directive, Value value) {
    const std::size_t room = kCapacity - length_;
    const int length = std::snprintf(area_ + length_, room + 1, directive, value);
    if (length > 0) length_ += std::min(static_cast<std::size_t>(length), room);
  }
  void End() {
    area_[length_++] = '\n';
    area_[length_] = '\0';
  }
  [[nodiscard]] std::string_view Text() const { return {area_, length_}; }

 private:
  static constexpr std::size_t kCapacity = kTraceLineSize - sizeof "\n";
  char* area_;
  std::size_t length_ = 0;
};

/// What the count of the argument slots finds in a format.
struct SlotCount {
  bool tooMany = false;
  std::size_t end = 0;  ///< null texts are guarded before this position only
};

/// Counts the way the slots were always counted: only a '*' or ".*" directly behind the '%' is
/// seen, ".*" takes one slot more than it needs, and a count that steps over ten is let through.
/// Formats in use rely on the result, not on its logic.
SlotCount CountSlots(std::string_view format) {
  SlotCount slots;
  unsigned count = 0;
  std::size_t percent = FindChar(format, '%');
  while (percent != std::string_view::npos && count < kMostSlots) {
    slots.end = percent + 1;
    const std::string_view behind = format.substr(slots.end);
    if (behind.starts_with('%')) {
      ++slots.end;
    } else {
      if (behind.starts_with('*')) ++count;
      if (behind.starts_with(".*")) count += 2;
      ++count;
    }
    percent = FindText(format, "%", slots.end);
  }
  slots.tooMany = count == kMostSlots && percent != std::string_view::npos;
  return slots;
}

/// The arguments of a line, each to be fetched in the type that it was passed in.
class Arguments {
 public:
  explicit Arguments(va_list& list) : list_(list) {}
  template <typename Value>
  Value Next() {
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started by the owner of the list.
    return va_arg(list_, Value);
  }

 private:
  va_list& list_;
};

enum class ArgumentSize { kChar, kShort, kInt, kLong, kLongLong, kSize, kDifference, kMax };

struct SizeName {
  std::string_view name;
  ArgumentSize size;
};
constexpr SizeName kSizeNames[] = {
    {"hh", ArgumentSize::kChar}, {"h", ArgumentSize::kShort}, {"ll", ArgumentSize::kLongLong},
    {"l", ArgumentSize::kLong},  {"z", ArgumentSize::kSize},  {"t", ArgumentSize::kDifference},
    {"j", ArgumentSize::kMax},
};

// Several of these types are one and the same here, but not on every platform.
// NOLINTBEGIN(bugprone-branch-clone)
std::intmax_t NextSigned(Arguments& arguments, ArgumentSize size) {
  switch (size) {
    case ArgumentSize::kChar:
      return static_cast<signed char>(arguments.Next<int>());
    case ArgumentSize::kShort:
      return static_cast<short>(arguments.Next<int>());
    case ArgumentSize::kLong:
      return arguments.Next<long>();
    case ArgumentSize::kLongLong:
      return arguments.Next<long long>();
    case ArgumentSize::kSize:
      return arguments.Next<ssize_t>();
    case ArgumentSize::kDifference:
      return arguments.Next<std::ptrdiff_t>();
    case ArgumentSize::kMax:
      return arguments.Next<std::intmax_t>();
    case ArgumentSize::kInt:
      break;
  }
  return arguments.Next<int>();
}

std::uintmax_t NextUnsigned(Arguments& arguments, ArgumentSize size) {
  switch (size) {
    case ArgumentSize::kChar:
      return static_cast<unsigned char>(arguments.Next<unsigned>());
    case ArgumentSize::kShort:
      return static_cast<unsigned short>(arguments.Next<unsigned>());
    case ArgumentSize::kLong:
      return arguments.Next<unsigned long>();
    case ArgumentSize::kLongLong:
      return arguments.Next<unsigned long long>();
    case ArgumentSize::kSize:
      return arguments.Next<std::size_t>();
    case ArgumentSize::kDifference:
      return arguments.Next<std::make_unsigned_t<std::ptrdiff_t>>();
    case ArgumentSize::kMax:
      return arguments.Next<std::uintmax_t>();
    case ArgumentSize::kInt:
      break;
  }
  return arguments.Next<unsigned>();
}
// NOLINTEND(bugprone-branch-clone)

/// Writes a format with its arguments, one directive at a time, each with an argument fetched in
/// its own type. Knows integers, characters, texts and pointers; from the first other directive on
/// the format is copied as it stands, because the arguments behind it cannot be told apart.
class FormatWriter {
 public:
  FormatWriter(std::string_view format, std::size_t guardedEnd, Arguments arguments,
               TraceLine& line)
      : format_(format), guardedEnd_(guardedEnd), arguments_(arguments), line_(line) {}

  void Write() {
    for (;;) {
      const std::size_t percent = std::min(FindText(format_, "%", at_), format_.size());
      line_.Append(format_.substr(at_, percent - at_));
      if (percent == format_.size()) return;
      at_ = percent + 1;
      if (!WriteDirective()) {
        line_.Append(format_.substr(percent));
        return;
      }
    }
  }

 private:
  bool WriteDirective() {
    if (Take("%")) {
      line_.Append("%");
      return true;
    }
    const bool guarded = at_ <= guardedEnd_ && format_.substr(at_).starts_with('s');
    length_ = 0;
    Put("%");
    PutRunOf("-+ #0");
    PutNumber(false);
    if (Take(".")) PutNumber(true);
    const ArgumentSize size = TakeSize();
    return at_ < format_.size() && WriteValue(format_[at_++], size, guarded);
  }

  bool WriteValue(char conversion, ArgumentSize size, bool guarded) {
    const bool plain = size == ArgumentSize::kInt;
    switch (conversion) {
      case 'd':
      case 'i':
        line_.AppendValue(Directive("jd"), NextSigned(arguments_, size));
        return true;
      case 'u':
      case 'o':
      case 'x':
      case 'X': {
        const char directive[] = {'j', conversion, '\0'};
        line_.AppendValue(Directive(directive), NextUnsigned(arguments_, size));
        return true;
      }
      case 'c':
        if (plain) line_.AppendValue(Directive("c"), arguments_.Next<int>());
        return plain;
      case 'p':
        if (plain) line_.AppendValue(Directive("p"), arguments_.Next<void*>());
        return plain;
      case 's':
        if (plain) WriteText(arguments_.Next<const char*>(), guarded);
        return plain;
      default:
        return false;
    }
  }

  void WriteText(const char* text, bool guarded) {
    if (text == nullptr && guarded) {
      line_.Append(kNullText);
      return;
    }
    line_.AppendValue(Directive("s"), text != nullptr ? text : "(null)");
  }

  [[nodiscard]] bool Take(std::string_view text) {
    if (!format_.substr(at_).starts_with(text)) return false;
    at_ += text.size();
    return true;
  }

  ArgumentSize TakeSize() {
    for (const SizeName& candidate : kSizeNames) {
      if (Take(candidate.name)) return candidate.size;
    }
    return ArgumentSize::kInt;
  }

  /// A width or precision. One that is passed as an argument is put as digits; a negative width
  /// reads as the '-' flag, a negative precision as none.
  void PutNumber(bool precision) {
    constexpr int kMost = static_cast<int>(kTraceLineSize);
    if (Take("*")) {
      const int number = std::clamp(arguments_.Next<int>(), -kMost, kMost);
      if (precision && number < 0) return;
      if (precision) Put(".");
      char digits[16];
      const int length = std::snprintf(digits, sizeof digits, "%d", number);
      Put({digits, static_cast<std::size_t>(length)});
      return;
    }
    if (precision) Put(".");
    PutRunOf("0123456789");
  }

  void PutRunOf(std::string_view characters) {
    const std::size_t end = std::min(format_.find_first_not_of(characters, at_), format_.size());
    Put(format_.substr(at_, end - at_));
    at_ = end;
  }

  void Put(std::string_view text) {
    length_ += CopyTextCut(std::span<char>(directive_).subspan(length_), text);
  }

  const char* Directive(std::string_view conversion) {
    Put(conversion);
    return directive_;
  }

  std::string_view format_;
  std::size_t guardedEnd_;
  Arguments arguments_;
  TraceLine& line_;
  std::size_t at_ = 0;
  /// The format's own characters, the digits of two arguments, a size and the terminator.
  char directive_[kTraceFormatLength + 16] = {};
  std::size_t length_ = 0;
};

/// Time of the line since the first stamped line of the process.
void AppendStamp(TraceLine& line) {
  if (state.clockBase == 0) state.clockBase = ElapsedMilliseconds(0);
  const std::uint32_t elapsed = ElapsedMilliseconds(state.clockBase);
  char stamp[16];
  std::snprintf(stamp, sizeof stamp, " %.2u.%.2u.%.2u.%.3u ", elapsed / 3'600'000 % 100,
                elapsed / 60'000 % 60, elapsed / 1'000 % 60, elapsed % 1'000);
  line.Append(stamp);
}

void AppendHeader(TraceLine& line) {
  line.AppendValue("[%.4u:", static_cast<unsigned>(::getpid()));
  line.AppendValue("%.8x]", static_cast<unsigned>(ThreadSelf() & 0xFFFFFFFF));
  AppendStamp(line);
}

void AppendMessage(TraceLine& line, std::string_view format, Arguments arguments) {
  format = format.substr(0, kTraceFormatLength);
  const SlotCount slots = CountSlots(format);
  if (slots.tooMany) {
    line.Append(kTooManyArguments);
    return;
  }
  FormatWriter(format, slots.end, arguments, line).Write();
  line.End();
}

// --- handing out a line -----------------------------------------------------------------------

/// Whether a line may pass; uses up one release.
bool PassesRelease() {
  if (state.release == 0) return false;
  if (state.release > 0) --state.release;
  return true;
}

bool HasTarget() {
  return state.target[0] != '\0';
}
bool HasReceiver() {
  return HasTarget() || state.callback != nullptr;
}

bool HasLineArea() {
  if (state.lineArea == nullptr) state.lineArea = new (std::nothrow) char[kTraceLineSize];
  return state.lineArea != nullptr;
}

bool Empty(const Descriptor& file) {
  return ::ftruncate(file.Get(), 0) == 0;
}

/// Empties a target that has grown too large. Looks once an hour, at the first line, and when the
/// clock was put back.
void CheckTargetSize() {
  const time_t now = ::time(nullptr);
  const bool early = now <= state.nextSizeCheck && state.nextSizeCheck - now <= kSizeCheckSeconds;
  if (early || IsServerTarget(TextOf(state.target))) return;
  state.nextSizeCheck = now + kSizeCheckSeconds;
  struct stat status {};
  const Descriptor file = OpenRegular(state.target, O_WRONLY, status);
  if (file.IsOpen() && status.st_size > kMostFileBytes) Empty(file);
}

/// Opened anew for each line: others write the same file, and a deleted one comes back.
void AppendToTarget(std::string_view line) {
  if (IsServerTarget(TextOf(state.target))) {
    state.target[0] = 's';  // Known behaviour of server targets; nothing else depends on it.
    return;
  }
  struct stat status {};
  WriteFully(OpenRegular(state.target, O_WRONLY | O_APPEND | O_CREAT, status, kOwnerOnly),
             {reinterpret_cast<const std::uint8_t*>(line.data()), line.size()});
}

void CallBack(std::string_view line) {
  if (state.callback == nullptr) return;
  ++state.callbackDepth;
  state.callback(line.data(), line.size());
  --state.callbackDepth;
}

void Delay() {
  const std::int32_t delay = state.delayMilliseconds.load(std::memory_order_relaxed);
  if (delay <= 0) return;
  const timespec pause = {delay / 1'000, delay % 1'000 * 1'000'000L};
  ::nanosleep(&pause, nullptr);
}

void HandOut(std::string_view line) {
  if (HasTarget()) AppendToTarget(line);
  CallBack(line);
  Delay();
}

/// Ends every mode. Lock and line area stay where a callback still needs them.
void ClearTarget() {
  CCritical* lock = TraceLock();
  if (lock == nullptr) return;
  bool unused = false;
  {
    const CriticalScope hold(lock);
    TraceStop();
    state.target[0] = '\0';
    state.callMode = false;
    state.release = kReleaseAll;
    if (state.callbackDepth == 0) {
      delete[] state.lineArea;
      state.lineArea = nullptr;
    }
    unused = state.callback == nullptr && state.callbackDepth == 0;
    if (unused) state.lock.store(nullptr, std::memory_order_release);
  }
  if (unused) delete lock;
}

void WriteDateLine() {
  const time_t now = ::time(nullptr);
  tm local = {};
  ::localtime_r(&now, &local);
  char date[80];
  std::snprintf(date, sizeof date, "%.4d-%.2d-%.2d %.2d:%.2d:%.2d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  TraceWrite("Trace - Date %s, '%s'", date, state.target);
}

// --- settings ---------------------------------------------------------------------------------

void ReadPath(RuntimeSettings& settings, const char* component, std::span<char> path,
              bool* callMode) {
  const bool hasComponent = !ViewOf(component).empty();
  // An entry that is present and empty switches the component off, whatever "File" says.
  if (!hasComponent || !settings.GetText(kSection, component, path)) {
    settings.GetText(kSection, "File", path);
  }
  if (callMode != nullptr && hasComponent && TextOf(path).empty() &&
      settings.GetText(kCallSection, component, path)) {
    *callMode = !TextOf(path).empty();
  }
}

}  // namespace

void TraceWrite(const char* format, ...) {
  CCritical* lock = TraceLock();
  if (lock == nullptr) return;
  const KeepErrorNumber keep;
  const CriticalScope hold(lock);
  if (!PassesRelease() || !HasReceiver() || !HasLineArea()) return;
  CheckTargetSize();
  TraceLine line(state.lineArea);
  if (state.callback == nullptr) AppendHeader(line);
  va_list arguments;
  va_start(arguments, format);
  AppendMessage(line, ViewOf(format), Arguments(arguments));
  va_end(arguments);
  HandOut(line.Text());
}

bool TraceReadSettings(const char* component, std::span<char> path, bool* callMode) {
  CopyTextCut(path, {});
  if (callMode != nullptr) *callMode = false;
  RuntimeSettings* settings = GetRuntimeSettings();
  if (settings == nullptr || !settings->Open(SettingsScope::kUserThenSystem)) return false;
  ReadPath(*settings, component, path, callMode);
  bool useLocalTime = false;
  if (settings->GetBoolean(kSection, "UseLocalTime", useLocalTime)) {
    state.useLocalTime.store(useLocalTime, std::memory_order_relaxed);
  }
  settings->Close();
  return !TextOf(path).empty();
}

void TraceInit(const char* component) {
  char path[kTextSize];
  bool callMode = false;
  if (!TraceReadSettings(component, path, &callMode)) return;
  if (callMode) {
    TraceSetCallTarget(path, 0);
  } else {
    TraceSetFile(path);
  }
}

void TraceSetFile(const char* name) {
  const std::string_view wanted = ViewOf(name);
  if (wanted.empty()) {
    ClearTarget();
    return;
  }
  if (wanted.size() >= kTextSize) return;
  CCritical* lock = MakeTraceLock();
  if (lock == nullptr) return;
  const CriticalScope hold(lock);
  if (IsAcceptedTarget(wanted, TextOf(state.target))) CopyTextCut(state.target, wanted);
  if (HasTarget()) WriteDateLine();
}

void TraceSetCallTarget(const char* name, std::int32_t counter) {
  const std::string_view wanted = ViewOf(name);
  if (wanted.size() >= kTextSize) return;
  CCritical* lock = MakeTraceLock();
  if (lock == nullptr) return;
  const CriticalScope hold(lock);
  state.callMode = name != nullptr;
  state.release = name != nullptr ? counter : kReleaseAll;
  CopyTextCut(state.target, wanted);
}

void TraceReleaseOneLine() {
  CCritical* lock = TraceLock();
  if (lock == nullptr) return;
  const CriticalScope hold(lock);
  if (state.callMode) state.release = 1;
}

bool TraceIsOn() {
  CCritical* lock = TraceLock();
  if (lock == nullptr) return false;
  const CriticalScope hold(lock);
  return HasReceiver();
}

void TraceDump(const char* name, std::span<const std::uint8_t> data) {
  CCritical* lock = TraceLock();
  if (lock == nullptr || data.empty()) return;
  const KeepErrorNumber keep;
  const CriticalScope hold(lock);
  if (!HasTarget() || !PassesRelease()) return;
  char temporary[kTextSize] = {};
  std::string_view directory = TargetDirectory();
  if (directory.empty()) directory = {temporary, GetTempDirectory(temporary)};
  if (directory.empty()) return;
  char path[2 * kTextSize];
  const int length =
      std::snprintf(path, sizeof path, "%.*s~%s%s", static_cast<int>(directory.size()),
                    directory.data(), Product().prefix, name == nullptr ? "" : name);
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof path) return;
  struct stat status {};
  const Descriptor file = OpenRegular(path, O_WRONLY | O_CREAT | O_NOFOLLOW, status, kOwnerOnly);
  // In a shared directory somebody else may have put a file of that name there to read it later, or
  // another name of a file that must not be emptied.
  const bool own = file.IsOpen() && status.st_uid == ::geteuid() && status.st_nlink == 1;
  if (own && Empty(file)) WriteFully(file, data);
}

void TraceStop() {
  // No line is ever queued, so none is waiting.
}

void TraceSetCallback(TraceLineCallback callback) {
  CCritical* lock = callback != nullptr ? MakeTraceLock() : TraceLock();
  if (lock == nullptr) return;
  const CriticalScope hold(lock);
  state.callback = callback;
}

void TraceSetDelay(std::int32_t milliseconds) {
  state.delayMilliseconds.store(milliseconds, std::memory_order_relaxed);
}

void TraceLockForFork() {
  if (CCritical* lock = TraceLock(); lock != nullptr) lock->Enter();
}

void TraceUnlockAfterFork() {
  if (CCritical* lock = TraceLock(); lock != nullptr) lock->Leave();
}

std::uint32_t ElapsedMilliseconds(std::uint32_t base) {
  timeval time = {};
  ::gettimeofday(&time, nullptr);
  const auto now = static_cast<std::uint32_t>(time.tv_sec % 86'400 * 1'000 + time.tv_usec / 1'000);
  return now < base ? now - base + kDayMilliseconds : now - base;
}

}  // namespace qixx::runtime
