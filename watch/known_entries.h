// Every section and entry that the service and its bridge read, in one table.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "runtime/text.h"
#include "watch/extra_watchers.h"
#include "watch/watch_main.h"

namespace qixx::watch {

/// In the place of an entry's name: entries "1", "2", "3" and so on.
inline constexpr std::string_view kNumberedEntries = "#";

inline constexpr std::size_t kNoEntryLimit = std::string_view::npos;

struct KnownEntry {
  std::string_view section;
  std::string_view entry;  ///< one that ends in a blank is followed by a name
  std::size_t maxLength;
  bool ofUser;  ///< the user's file is asked before the system's

  [[nodiscard]] bool IsNamed(std::string_view name) const {
    return entry.ends_with(' ') ? runtime::StartsWithNoCase(name, entry)
                                : runtime::EqualsNoCase(name, entry);
  }
};

/// Without those that are named after a watcher: its event sections, and its own section with the
/// entry "Background".
inline constexpr std::array kKnownEntries = {
    KnownEntry{"Command", "Watch", kMaxCommandLine, false},
    KnownEntry{"Command", "Watch ", kMaxCommandLine - kChildMark.size(), false},
    KnownEntry{"Trace", "watch", kMaxOption, true},
    KnownEntry{"Trace", "bridge", kMaxOption, true},
    KnownEntry{"Trace", "File", kMaxOption, true},
    KnownEntry{"Trace", "UseLocalTime", kMaxOption, true},
    KnownEntry{"Trace Call", "watch", kMaxOption, true},
    KnownEntry{"Install", "Directory", kMaxOption, false},
    KnownEntry{"Pkcs11", "Module", kMaxOption, true},
    KnownEntry{"Pkcs11", "Readers", kMaxCommandLine, true},
    KnownEntry{"Pkcs11", "Ignore", kMaxCommandLine, true},
    KnownEntry{"Pkcs11", "Library", kMaxOption, true},
    KnownEntry{"Condition", kNumberedEntries, kNoEntryLimit, true},
    KnownEntry{"SmartCardProfile", kNumberedEntries, kNoEntryLimit, true},
};

}  // namespace qixx::watch
