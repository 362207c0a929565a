// Giving a file a new content so that nobody ever sees half of it.
//
// The new content is a file of its own beside the old one, under a name that begins with
// kTemporaryHead. It takes the old one's permissions and, where the system allows it, owner, group
// and access list, and takes its name when all of it is on the disk. Until then only the service's
// user can open it. A left-over of a process that was killed on the way is removed at the next
// write into that folder; one that somebody still writes is locked (flock) and so known.
//
// All operations may be called from any thread. Nothing is thrown and nothing is allocated, so a
// destructor may write.
#pragma once

#include <string_view>

#include "runtime/descriptor.h"
#include "runtime/file_place.h"

namespace qixx::runtime {

inline constexpr std::string_view kTemporaryHead = ".qixxwatch-new-";

/// Makes `text` the content of the file at `place`; `old` is that file, open for reading and
/// writing. Whatever fails or dies on the way, the file holds all of the old content or all of the
/// new. Where the folder takes no new file (or gives the name to none, as with a mounted file), the
/// old one is written in place, which is traced; it then must have one name. False when the content
/// is not the new one, and then traced.
[[nodiscard]] bool ReplaceFile(const FilePlace& place, const Descriptor& old,
                               std::string_view text);

/// Makes a file of this content, with the permissions, owner and group of the open file `like`.
/// Whatever had the name is replaced, also a link. False, and traced, when there is no such file.
[[nodiscard]] bool MakeFile(const FilePlace& place, std::string_view text, const Descriptor& like);

/// What both do first: removes the left-overs in the folder.
void RemoveLeftOvers(const FilePlace& place);

}  // namespace qixx::runtime
