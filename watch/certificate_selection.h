// Which of the certificates on the cards stands for whoever logs on.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "der/certificate.h"
#include "der/logon_values.h"
#include "pkcs11/cryptoki.h"

namespace qixx::watch {

/// What a match text asks of a certificate.
struct CredentialMatch {
  std::string name;
  /// Decoded from hexadecimal; its first byte is a slot. Empty when the text has no such part.
  std::vector<std::uint8_t> value;

  /// The slot that the value names, if it is not the one that stands for every slot.
  [[nodiscard]] std::optional<CK_SLOT_ID> Slot() const;
  /// Without a value every certificate will do: the name alone has been asked for before the
  /// event's commands.
  [[nodiscard]] bool Accepts(const der::CertificateHolder& holder) const;
};

/// Splits "name|hex" at the last bar. Nothing for a name of 256 characters or more, and for four
/// digits or more.
[[nodiscard]] std::optional<CredentialMatch> ParseMatchText(std::string_view match);

/// What the first certificate says that yields a name to log on with, as it stands there: one made
/// for smart-card logon in the first pass, any other (and an e-mail address in place of the name)
/// in the second. A match with a value asks for the first kind alone. While tracing is on each
/// certificate that is tried is kept beside the trace.
[[nodiscard]] std::optional<der::CertificateLogonValues> SelectLogonValues(
    std::span<const der::CertificatePtr> certificates, const CredentialMatch& match);

}  // namespace qixx::watch
