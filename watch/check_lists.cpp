#include "watch/check_lists.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "runtime/text.h"
#include "watch/check_command.h"
#include "watch/command.h"
#include "watch/event_table.h"

namespace qixx::watch {
namespace {

bool IsListNumber(std::string_view name) {
  const std::uint64_t number = runtime::ParseDecimal(name);
  return number != 0 && std::to_string(number) == name;
}

void AddUnreached(const Place& place, std::string_view name, std::uint64_t missing,
                  Mistakes& mistakes) {
  mistakes.Add(place, "entry " + Quoted(name) + " is never reached",
               "the list ends at the missing '" + std::to_string(missing) + "'");
}

}  // namespace

const EventList& EventLists::Read(EventKind kind, const std::string& section) {
  const auto known = lists_.find(section);
  if (known != lists_.end()) return known->second;
  return lists_.emplace(section, ReadNew(kind, section)).first->second;
}

EventList EventLists::ReadNew(EventKind kind, const std::string& section) {
  const bool isInsert = kind == EventKind::kInsert;
  const std::size_t maxLength = isInsert ? kMaxInsertEntry : kMaxRemoveEntry;
  EventList list;
  std::size_t number = 1;
  std::optional<std::size_t> failing;
  for (; number <= kMaxCheckedList; ++number) {
    std::optional<CheckedValue> value =
        configuration_.Read(section, std::to_string(number), maxLength, list.mistakes);
    if (!value) break;
    list.hasEntries = true;
    std::string command = std::move(value->text);
    command.resize(std::min(command.size(), maxLength));
    if (command.empty()) continue;
    if (isInsert && failing) {
      list.mistakes.Add(value->place,
                        "the command is never run, for entry '" + std::to_string(*failing) +
                            "' fails and ends the list",
                        "it belongs in front of that");
    }
    CheckCommand(value->place, {kind, isInsert}, command, list.mistakes);
    if (SplitCommand(kind, command).kind == CommandKind::kFailure && !failing) failing = number;
    list.commands.push_back({number, std::move(command)});
  }
  if (number <= kMaxCheckedList) {
    CheckNumbers(section, number, list.mistakes);
    return list;
  }
  const CheckedFile* const file = configuration_.File(CheckedRole::kSystem);
  list.mistakes.Add(file != nullptr ? file->At(1) : Place{},
                    "the list " + Quoted(section) + " has more commands than are checked",
                    "the first " + std::to_string(kMaxCheckedList) + " were");
  return list;
}

/// What stands behind the end of a list, or is no number.
void EventLists::CheckNumbers(const std::string& section, std::size_t missing,
                              Mistakes& mistakes) const {
  const CheckedFile* const file = configuration_.File(CheckedRole::kSystem);
  const CheckedSection* const held = file != nullptr ? file->Find(section) : nullptr;
  if (held == nullptr) return;
  for (const CheckedEntry& entry : held->entries) {
    if (entry.name.starts_with('#')) continue;
    const std::string_view name = runtime::DropTrailingBlanks(runtime::SkipBlanks(entry.name));
    if (name != entry.name) continue;  // said with the blank
    if (!IsListNumber(name)) {
      mistakes.Add(file->At(entry.line), "entry " + Quoted(name) + " is not read",
                   "numbers from 1 are meant");
    } else if (runtime::ParseDecimal(name) > missing) {
      AddUnreached(file->At(entry.line), name, missing, mistakes);
    }
  }
}

void CheckNumbered(const CheckedFile& file, const CheckedSection& section, Mistakes& mistakes) {
  std::vector<std::uint64_t> numbers;
  for (const CheckedEntry& entry : section.entries) {
    if (IsListNumber(entry.name)) numbers.push_back(runtime::ParseDecimal(entry.name));
  }
  std::ranges::sort(numbers);
  std::uint64_t missing = 1;
  for (const std::uint64_t number : numbers) missing += number == missing ? 1 : 0;
  for (const CheckedEntry& entry : section.entries) {
    if (!IsListNumber(entry.name) || runtime::ParseDecimal(entry.name) < missing) continue;
    AddUnreached(file.At(entry.line), entry.name, missing, mistakes);
  }
}

}  // namespace qixx::watch
