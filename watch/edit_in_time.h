// Changing a file without waiting for it for ever: the file system behind it may be out of reach
// for hours, and whoever may list a folder can keep others from writing into it. The loop has
// screens to lock meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace qixx::watch {

/// How long the edits of one event may keep it waiting together, in milliseconds.
inline constexpr std::int64_t kFilePatience = 5000;

/// From here on the edits that the main thread asks for are those of another event. They may wait
/// for the locks of folders again, too (watch/file_scope.h).
void BeginEventOfFiles(std::int64_t patience = kFilePatience);

/// A card has gone, and this is not another try of its removal: its fills are not written any more,
/// and what was cleared late before is no answer to who clears now.
void BeginRemovalOfFiles();
/// How often that was called. An event knows the number of its time (watch/event.h).
[[nodiscard]] unsigned RemovalsOfFiles();

enum class EditKind { kFill, kClear, kRestoreAndClear };

/// Runs `edit`, which changes the file at `path`, and returns its answer; its std::bad_alloc
/// arrives here too. What the main thread asks for runs on a thread of its own. False, and traced,
/// when the answer is not there in time: the edit goes on then, and until it has ended each other
/// one of that path is refused, on another thread it waits. ScarceMeans tells of both, so that a
/// removal tries again; what it cleared late is done then, and not done twice. Where no thread is
/// to be had the main thread waits without an end.
bool EditInTime(const std::string& path, EditKind kind, std::function<bool()> edit);

}  // namespace qixx::watch
