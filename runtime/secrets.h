// Keeps what stands behind the options for PINs and passwords out of the trace.
#pragma once

#include <string>
#include <string_view>

namespace qixx::runtime {

/// A copy with the values of secret options replaced by '*'; lengths are kept. An option has one
/// dash or two, and blanks, tabulators or a '=' between its key and its value. A value ends at the
/// next blank, in quotes at the closing one; that of a quoted option ends with the option.
[[nodiscard]] std::string MaskSecrets(std::string_view text);

/// A masked copy for one trace line: TraceWrite("... '%s'", MaskedText(text).Text()). No copy is
/// made while tracing is off.
class MaskedText {
 public:
  explicit MaskedText(std::string_view text);
  [[nodiscard]] const char* Text() const { return copy_.c_str(); }

 private:
  std::string copy_;
};

}  // namespace qixx::runtime
