// Variables of the process environment that concern the configuration. Their names begin with the
// product prefix.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace qixx::config {

/// The texts one behind the other; nothing when that is longer than a name or path may be, 255
/// characters.
[[nodiscard]] std::optional<std::string> JoinText(std::initializer_list<std::string_view> parts);
/// The value of the variable whose name is the prefix and the parts. Nothing when it is not set or
/// the name is too long. The view holds until the environment is changed.
[[nodiscard]] std::optional<std::string_view> FindProductVariable(
    std::initializer_list<std::string_view> parts);
/// A path from such a variable, when it is set, not empty and of at most 255 characters.
[[nodiscard]] std::optional<std::string> GetPathVariable(std::string_view name);

}  // namespace qixx::config
