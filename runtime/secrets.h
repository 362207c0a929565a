// Keeps what stands behind the options for PINs and passwords out of the trace.
#pragma once

#include <string>
#include <string_view>

namespace qixx::runtime {

/// A copy with the values of secret options replaced by '*'; lengths are kept. An option has one
/// dash or two, and blanks, tabulators or a '=' between its key and its value. A value ends at the
/// next blank, in quotes at the closing one; that of a quoted option ends with the option.
[[nodiscard]] std::string MaskSecrets(std::string_view text);

/// Parts of a line as they may be shown. A part alone does not tell whether it belongs to a secret.
class MaskedLine {
 public:
  explicit MaskedLine(std::string_view line);

  /// The part, or what stands at its place when the masked line holds it nowhere. What comes from
  /// elsewhere is all masked, if the line has secrets, and so are the parts of a line that is
  /// longer than any command by far. So nothing is ever shown that the masked line does not show.
  [[nodiscard]] std::string Part(std::string_view part) const;
  /// Whether a part is not shown as it is.
  [[nodiscard]] bool Hides(std::string_view part) const;

 private:
  std::string line_;
  std::string masked_;
  bool hasSecrets_ = false;
};

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
