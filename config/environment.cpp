#include "config/environment.h"

#include <cstdlib>

#include "runtime/product.h"
#include "runtime/text.h"

namespace qixx::config {

std::optional<std::string> JoinText(std::initializer_list<std::string_view> parts) {
  std::string joined;
  for (const std::string_view part : parts) joined += part;
  if (joined.size() > runtime::kMaxText) return std::nullopt;
  return joined;
}

std::optional<std::string_view> FindProductVariable(std::initializer_list<std::string_view> parts) {
  const std::string_view prefix = runtime::Product().prefix;
  std::string name(prefix);
  for (const std::string_view part : parts) name += part;
  const bool isName = !prefix.empty() && name.size() <= runtime::kMaxText;
  const char* const value = isName ? std::getenv(name.c_str()) : nullptr;
  if (value == nullptr) return std::nullopt;
  return value;
}

std::optional<std::string> GetPathVariable(std::string_view name) {
  const std::optional<std::string_view> path = FindProductVariable({name});
  if (!path || path->empty() || path->size() > runtime::kMaxText) return std::nullopt;
  return std::string(*path);
}

}  // namespace qixx::config
