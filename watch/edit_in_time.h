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

/// From here on the edits that the main thread asks for are those of another event, which may keep
/// it waiting for so long. They may wait for the locks of folders again, too (watch/file_scope.h).
void BeginEventEdits(std::int64_t milliseconds = kFilePatience);

/// A card has gone, and this is not another try of its removal: its fills are not written any more,
/// and what was cleared late before is no answer to who clears now.
void NoteCardGone();
/// How many cards have gone. An event notes the number at its time (watch/event.h).
[[nodiscard]] unsigned CardsGone();

enum class EditKind { kFill, kClear, kRestoreAndClear };

/// Runs `edit`, which changes the file at `path`, and returns its answer; its std::bad_alloc
/// arrives here too. What the main thread asks for runs on a thread of its own.
///
/// False, and traced, when the answer does not come in time. The edit then goes on. Until it has
/// ended, the main thread is refused every other edit of that path, and other threads wait for it.
/// In both cases ScarceMeans counts, so that a removal tries again. When a clearing has meanwhile
/// ended well, the next try of the same kind answers true and does not edit again. Where there is
/// no thread to be had, the main thread waits without an end.
bool EditInTime(const std::string& path, EditKind kind, std::function<bool()> edit);

}  // namespace qixx::watch
