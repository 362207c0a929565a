#include "config/environment.h"

#include <cstdlib>

#include "runtime/product.h"
#include "runtime/text.h"

namespace qixx::config {

std::optional<std::string> JoinText(std::initializer_list<std::string_view> parts) {
  std::size_t length = 0;
  for (const std::string_view part : parts) length += part.size();
  if (length > runtime::kMaxText) return std::nullopt;
  std::string joined;
  joined.reserve(length);
  for (const std::string_view part : parts) joined += part;
  return joined;
}

std::optional<std::string_view> FindProductVariable(std::initializer_list<std::string_view> parts) {
  std::string name(runtime::Product().prefix);
  if (name.empty()) return std::nullopt;
  const std::optional<std::string> rest = JoinText(parts);
  if (!rest || name.size() + rest->size() > runtime::kMaxText) return std::nullopt;
  const char* const value = std::getenv(name.append(*rest).c_str());
  if (value == nullptr) return std::nullopt;
  return value;
}

std::optional<std::string> GetPathVariable(std::string_view name) {
  const std::optional<std::string_view> path = FindProductVariable({name});
  if (!path || path->empty() || path->size() > runtime::kMaxText) return std::nullopt;
  return std::string(*path);
}

}  // namespace qixx::config
