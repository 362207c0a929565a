// Words for whoever started the program, or reads the journal of the service manager that did: one
// line on standard error, whatever the trace.
//
// A line that nobody takes is lost: no call waits, and a reader that is gone does no harm where
// SIGPIPE is ignored. May be called from any thread; errno is left alone.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string_view>

namespace qixx::runtime {

/// Longest line with the program's name and its line end; a longer one is cut.
inline constexpr std::size_t kMaxNotice = 1024;

/// Writes "qixxwatch: " and the parts of a text, in which what is not printable becomes '?'.
/// Allocates nothing and takes no lock, so it may be called behind a fork.
void Notify(std::initializer_list<std::string_view> parts);
/// The same for a text that has not been written yet; behind too many different ones each is new.
void NotifyOnce(std::string_view text);

/// The system's words for an error number, for good; allocates nothing.
[[nodiscard]] const char* ErrorText(int number);

}  // namespace qixx::runtime
