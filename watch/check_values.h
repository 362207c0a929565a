// The configuration under check: its files, and its values as the service would get them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "config/store.h"
#include "watch/check_file.h"
#include "watch/check_report.h"

namespace qixx::watch {

/// What a file is to the service.
enum class CheckedRole : std::uint8_t { kBeside, kUser, kSystem };

/// In the order in which the files are checked.
inline constexpr std::array kCheckedRoles = {CheckedRole::kBeside, CheckedRole::kUser,
                                             CheckedRole::kSystem};

struct CheckedValue {
  std::string text;
  Place place;
};

class CheckedConfiguration {
 public:
  /// Takes the file of a role, once. Why it cannot be read; empty when it can.
  [[nodiscard]] std::string Load(CheckedRole role, const std::string& path);
  /// Null without a file of that role.
  [[nodiscard]] const CheckedFile* File(CheckedRole role) const;

  /// A value of the system's file or of the environment, whole. One that the service cuts, or does
  /// not take from the environment for its length, is a mistake.
  [[nodiscard]] std::optional<CheckedValue> Read(std::string_view section, std::string_view entry,
                                                 std::size_t maxLength, Mistakes& mistakes);
  /// What the store itself answers. Unlike Read it walks over the section for each answer.
  [[nodiscard]] config::CConfig& Store() { return store_; }

 private:
  [[nodiscard]] std::optional<config::ConfigValue> Find(std::string_view section,
                                                        std::string_view entry,
                                                        const CheckedEntry* line);

  std::array<std::optional<CheckedFile>, kCheckedRoles.size()> files_;
  config::CConfig store_;
  bool isSameText_ = false;  ///< the store and the system's file hold the same lines
};

/// The value has more than `maxLength` characters, and the service cuts it.
void CheckLength(const Place& place, std::string_view entry, std::string_view value,
                 std::size_t maxLength, Mistakes& mistakes);

}  // namespace qixx::watch
