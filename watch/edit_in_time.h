// Changing a file without waiting for it for ever: the file system behind it may be out of reach
// for hours, and whoever may list a folder can keep others from writing into it. The loop has
// screens to lock meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace qixx::watch {

/// Runs `edit`, which changes the file at `path`, and returns its answer; its std::bad_alloc
/// arrives here too. What the main thread asks for runs on a thread of its own, behind the edits of
/// this path that are not done yet. False, and traced, when the answer is not there in time; the
/// edit goes on then, and so do the next ones of this path, without anybody waiting for them. On
/// any other thread, and where there are no threads, nothing but the edit itself ends it.
bool EditInTime(const std::string& path, std::function<bool()> edit);

/// How long the edits of one event may keep it waiting together, in milliseconds.
inline constexpr std::int64_t kFilePatience = 5000;

/// From here on the edits that the main thread asks for are those of another event. They may wait
/// for the locks of folders again, too (watch/file_scope.h).
void BeginEventOfFiles(std::int64_t patience = kFilePatience);

}  // namespace qixx::watch
