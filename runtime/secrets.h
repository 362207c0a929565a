// Keeps what stands behind the options for PINs and passwords out of the trace.
#pragma once

#include <memory>

namespace qixx::runtime {

/// New array copy with the values of secret options replaced by '*' (lengths are kept), freed with
/// delete[]; null for a null text.
[[nodiscard]] char* MaskSecrets(const char* text);

/// A masked copy for one trace line: TraceWrite("... '%s'", MaskedText(text).Text()). No copy is
/// made while tracing is off; whatever goes wrong, the unmasked text is never given out.
class MaskedText {
 public:
  explicit MaskedText(const char* text);
  /// Null for a null text, and when memory ran out.
  [[nodiscard]] const char* Text() const { return off_ ? "" : copy_.get(); }

 private:
  bool off_;
  std::unique_ptr<char[]> copy_;
};

}  // namespace qixx::runtime
