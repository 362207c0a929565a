#include "bridge/reader_filter.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstddef>

#include "bridge/readers.h"
#include "pkcs11/reader.h"
#include "runtime/text.h"

namespace qixx::bridge {
namespace {

std::vector<std::string> SplitPatterns(std::string_view list) {
  std::vector<std::string> patterns;
  for (std::size_t i = 0; const auto field = runtime::GetField(list, i, '|'); ++i) {
    const std::string_view pattern = runtime::DropTrailingBlanks(runtime::SkipBlanks(*field));
    if (!pattern.empty()) patterns.emplace_back(pattern);
  }
  return patterns;
}

bool MatchesAny(const std::vector<std::string>& patterns, const std::string& name) {
  return std::ranges::any_of(patterns, [&name](const std::string& pattern) {
    return ::fnmatch(pattern.c_str(), name.c_str(), FNM_CASEFOLD) == 0;
  });
}

}  // namespace

ReaderFilter::ReaderFilter(std::string_view readers, std::string_view ignore)
    : readers_(SplitPatterns(readers)), ignore_(SplitPatterns(ignore)) {}

bool ReaderFilter::Counts(const CK_SLOT_INFO& info) const {
  if (pkcs11::CHelperPkcs11::IsVirtualSlot(info.slotDescription, info.flags)) return false;
  return (!readers_.empty() || (info.flags & CKF_REMOVABLE_DEVICE) != 0) &&
         MayCount(std::string(DescriptionText(info)));
}

bool ReaderFilter::MayCount(const std::string& name) const {
  if (MatchesAny(ignore_, name)) return false;
  return readers_.empty() || MatchesAny(readers_, name);
}

}  // namespace qixx::bridge
