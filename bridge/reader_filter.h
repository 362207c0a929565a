// Which slots the bridge tells of.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/cryptoki.h"

namespace qixx::bridge {

/// Two lists of shell patterns, tried on the whole description of a slot, letter case ignored.
class ReaderFilter {
 public:
  ReaderFilter() = default;
  /// Lists split by "|"; blanks around a pattern are dropped, an empty one is passed over.
  ReaderFilter(std::string_view readers, std::string_view ignore);

  /// False for a slot that the service takes for virtual and passes over at start, which would keep
  /// others back, for what `ignore` names, and for what a list of `readers` leaves out. Without
  /// such a list removable slots count: the others are no readers.
  [[nodiscard]] bool Counts(const CK_SLOT_INFO& info) const;
  /// The same for a reader of which no more is known than its name.
  [[nodiscard]] bool MayCount(const std::string& name) const;

 private:
  std::vector<std::string> readers_;
  std::vector<std::string> ignore_;
};

}  // namespace qixx::bridge
