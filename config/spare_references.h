// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program. The recorder of the settings that a program reads.
//
// The environment names the file; where it names none, the file is "0" in the current directory.
// Only items of kind kRecorded have their settings recorded, and this program has none.
#pragma once

#include <string_view>

namespace qixx::config {

/// Adds the setting to the reference file, with an empty value, unless it is there. Does nothing
/// without a section or entry and for an entry with a '_' in it. May be called from any thread.
void AddReference(std::string_view section, std::string_view entry);

}  // namespace qixx::config
