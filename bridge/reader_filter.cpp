#include "bridge/reader_filter.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstddef>

#include "bridge/readers.h"

namespace qixx::bridge {
namespace {

std::vector<std::string> SplitPatterns(std::string_view list) {
  std::vector<std::string> patterns;
  while (!list.empty()) {
    const std::size_t end = std::min(list.find('|'), list.size());
    std::string_view pattern = list.substr(0, end);
    list.remove_prefix(std::min(end + 1, list.size()));
    pattern.remove_prefix(std::min(pattern.find_first_not_of(' '), pattern.size()));
    pattern = pattern.substr(0, pattern.find_last_not_of(' ') + 1);
    if (!pattern.empty()) patterns.emplace_back(pattern);
  }
  return patterns;
}

bool MatchesAny(const std::vector<std::string>& patterns, const std::string& name) {
  return std::any_of(patterns.begin(), patterns.end(), [&name](const std::string& pattern) {
    return ::fnmatch(pattern.c_str(), name.c_str(), FNM_CASEFOLD) == 0;
  });
}

}  // namespace

ReaderFilter::ReaderFilter(std::string_view readers, std::string_view ignore)
    : readers_(SplitPatterns(readers)), ignore_(SplitPatterns(ignore)) {}

bool ReaderFilter::Counts(const CK_SLOT_INFO& info) const {
  const bool isNamed = !readers_.empty();
  return (isNamed || (info.flags & CKF_REMOVABLE_DEVICE) != 0) &&
         MayCount(std::string(DescriptionText(info)));
}

bool ReaderFilter::MayCount(const std::string& name) const {
  if (MatchesAny(ignore_, name)) return false;
  return readers_.empty() || MatchesAny(readers_, name);
}

}  // namespace qixx::bridge
