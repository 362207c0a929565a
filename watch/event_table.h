// Where an event's commands come from, and the two event handlers that run them in order.
//
// The handlers run on the loop's thread; each opens and releases a configuration of its own. They
// keep no state between events beside the record's process id and the terminate list.
#pragma once

#include <span>
#include <string_view>

#include "config/store.h"
#include "pkcs11/cryptoki.h"
#include "watch/options.h"

namespace qixx::watch {

/// Event sections are named in areas of this size: names over 50 characters yield no commands.
inline constexpr std::size_t kEventSectionSize = 64;
/// An insert entry and a remove entry are read into areas of these sizes, terminator included.
inline constexpr std::size_t kInsertEntrySize = 512;
inline constexpr std::size_t kRemoveEntrySize = 256;

/// Opens the product configuration read-only. False when there is none, or none that holds a text.
[[nodiscard]] bool LoadProductConfiguration(config::CConfig& config);

/// "Watch" itself, else "Watch " and the name; empty when that does not fit. Returns whether `out`
/// is non-empty.
bool BuildWatchSection(std::string_view name, std::span<char> out);
/// The watcher section name and " Insert" or " Remove"; empty when that does not fit. Always traces
/// the result. Returns whether `out` is non-empty.
bool BuildEventSection(bool insert, std::string_view name, std::span<char> out);

/// Whether the watcher has anything to run. Of its event sections only the first entries count.
[[nodiscard]] bool HasEventCommands(const CWatchOptions& record);
/// Runs the commands of an insert in order, up to the first that fails. Returns true on success,
/// which a failing command in a section does not change.
bool OnInsertEvent(CWatchOptions& record, CK_SLOT_ID slot);
/// Runs all commands of a removal, and ends what the insert started for the slot.
void OnRemoveEvent(CWatchOptions& record, CK_SLOT_ID slot);
/// The gate in front of both handlers: true when the handler is to proceed. Waits the seconds that
/// the record names, asking three times in each whether the event still holds; false at once when
/// it does not, or when the process is asked to stop.
bool WaitBeforeEvent(const CWatchOptions& record, CK_SLOT_ID slot, bool insert);

/// Whether the event section of the watcher holds a command that is more than an ending.
[[nodiscard]] bool HasOrdinaryRemoveCommand(config::CConfig& config, std::string_view name,
                                            bool insert);
/// Whether a command text is more than an ending; one that begins with "config" is as ordinary as
/// the watcher's remove section.
[[nodiscard]] bool IsOrdinaryCommand(config::CConfig& config, std::string_view name,
                                     std::string_view text);

/// Size of the area for an entry's key, terminator included.
inline constexpr std::size_t kEntryKeySize = 16;
/// The key of an entry: its number in decimal digits. Entries are counted from 1.
void FormatEntryKey(unsigned number, std::span<char> key);

/// Called with the record and the event kind before and after the commands of an event; nothing to
/// do on this platform.
void EventHook(const CWatchOptions& record, bool insert);

}  // namespace qixx::watch
