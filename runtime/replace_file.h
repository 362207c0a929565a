// Giving a file a new content so that nobody ever sees half of it.
//
// The new content is a file of its own beside the old one, under a name that begins with
// kTemporaryHead. While it is written only the service's user can open it; then it gets the old
// one's owner, group, permissions and access list, and takes its name when all of it is on the
// disk. A left-over of a process that was killed on the way is removed at the next write into that
// folder; one that somebody still writes is locked (flock) and so known.
//
// All operations may be called from any thread. Nothing is thrown, and the write itself needs no
// memory, so a destructor may write.
#pragma once

#include <string_view>

#include "runtime/descriptor.h"
#include "runtime/file_place.h"

namespace qixx::runtime {

inline constexpr std::string_view kTemporaryHead = ".qixxwatch-new-";

/// Makes `text` the content of the file at `place`; `old` is that file, open for reading and
/// writing. Whatever fails or dies on the way, the file holds all of the old content or all of the
/// new. False when the content is not the new one, and then traced; ScarceMeans tells of a full
/// disk.
///
/// The old file is written in place only where (1) the folder takes no new file or the name cannot
/// be given away, as with a mounted file, or (2) a new file cannot have the old one's owner, or its
/// group or access list where these decide who may read or write. The old file must have one name
/// then. The trace says so; a write that ends in the middle is also told on standard error.
[[nodiscard]] bool ReplaceFile(const FilePlace& place, const Descriptor& old,
                               std::string_view text);

/// Makes a file of this content, with the permissions, and as far as that is allowed the owner and
/// the group, of the open file `like`; another group gets no more than everybody.
/// Whatever had the name is replaced, also a link. False, and traced as above, when there is no
/// such file.
[[nodiscard]] bool MakeFile(const FilePlace& place, std::string_view text, const Descriptor& like);

/// What both do first: removes left-overs in the folder, at most 16 of at most 4 MiB each.
void RemoveLeftOvers(const FilePlace& place);

}  // namespace qixx::runtime
