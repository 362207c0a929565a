#include "runtime/notice.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <set>

#include "runtime/no_destructor.h"
#include "runtime/sync.h"
#include "runtime/text.h"

namespace qixx::runtime {
namespace {

constexpr std::string_view kHead = "qixxwatch: ";
constexpr std::size_t kMaxRemembered = 256;

/// What has been written once. Never destroyed, because commands run while the process ends.
struct Remembered {
  CCritical lock;
  std::set<std::size_t> texts;
};

bool IsNew(std::string_view text) {
  static NoDestructor<Remembered> remembered;
  const CriticalScope hold(&remembered->lock);
  // Cards may have filled it: what matters is rather said twice than not at all.
  if (remembered->texts.size() >= kMaxRemembered) remembered->texts.clear();
  return remembered->texts.insert(std::hash<std::string_view>()(text)).second;
}

/// Whether a line can be written at once. A pipe that has room takes all of it, because it is
/// shorter than what the system writes in one piece.
bool HasRoom() {
  pollfd error = {STDERR_FILENO, POLLOUT, 0};
  return ::poll(&error, 1, 0) == 1 && (error.revents & (POLLOUT | POLLERR)) == POLLOUT;
}

/// Control characters, those beyond ASCII as well, move a terminal; so may a byte that is no UTF-8.
bool IsPrintable(std::optional<char32_t> character) {
  return character && *character >= 0x20 && (*character < 0x7F || *character > 0x9F);
}

/// Puts the text to `to` with one '?' for each character that is not printable; returns the end.
char* CopyPrintable(std::string_view text, char* to) {
  while (!text.empty()) {
    const std::string_view before = text;
    if (IsPrintable(TakeUtf8(text))) {
      to += before.copy(to, before.size() - text.size());
    } else {
      *to++ = '?';
    }
  }
  return to;
}

}  // namespace

void Notify(std::initializer_list<std::string_view> parts) {
  const int kept = errno;
  char text[kMaxNotice - kHead.size() - 1];
  std::size_t length = 0;
  for (const std::string_view part : parts) {
    length += part.copy(text + length, sizeof text - length);
  }
  char line[kMaxNotice];
  char* end = CopyPrintable({text, length}, std::ranges::copy(kHead, line).out);
  *end++ = '\n';
  if (HasRoom()) {
    static_cast<void>(::write(STDERR_FILENO, line, static_cast<std::size_t>(end - line)) > 0);
  }
  errno = kept;
}

void NotifyOnce(std::string_view text) {
  if (IsNew(text)) Notify({text});
}

const char* ErrorText(int number) {
  const char* const text = ::strerrordesc_np(number);
  return text != nullptr ? text : "unknown error";
}

}  // namespace qixx::runtime
