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
};

/// Splits "name|hex" at the last bar. Nothing for a name of 256 characters or more, and for four
/// digits or more.
[[nodiscard]] std::optional<CredentialMatch> ParseMatchText(std::string_view match);
/// What a match text asks of the certificate that is taken. One that cannot be read asks for
/// nothing, and neither does the word "fast": it is a name without a value.
[[nodiscard]] CredentialMatch SelectionMatch(std::string_view match);

/// A walk over the certificates: the first one asks for those made for smart-card logon, the second
/// for any other, where an e-mail address may stand in for the name.
enum class SelectionPass : std::uint8_t { kForLogon, kAny };

/// What came of a certificate in a pass, and of all of them in a selection.
enum class Verdict : std::uint8_t {
  kTaken,
  kBehindTaken,   ///< would do, but the one that is taken stands in front of it
  kSuperseded,    ///< a duplicate is valid longer
  kNotMatching,   ///< its name or slot is not that of the match
  kNotForLogon,   ///< not made for smart-card logon
  kWithoutName,   ///< made for it, but has no principal name
  kWithoutNames,  ///< has neither a principal name nor an e-mail address
};

struct Selection {
  std::size_t index = 0;  ///< of the certificate that is taken
  SelectionPass pass = SelectionPass::kForLogon;
  der::CertificateLogonValues values;  ///< as they stand there
};
/// The first certificate that yields a name to log on with. A match with a value has the first pass
/// only. While tracing is on each certificate that is tried is kept beside the trace.
[[nodiscard]] std::optional<Selection> SelectCertificate(
    std::span<const der::CertificatePtr> certificates, const CredentialMatch& match);

/// Why the selection takes none but the one that it takes: for each certificate what the deciding
/// pass makes of it, that is the one in which one is taken, or the last one.
[[nodiscard]] std::vector<Verdict> JudgeCertificates(
    std::span<const der::CertificatePtr> certificates, const CredentialMatch& match,
    const std::optional<Selection>& selection);

}  // namespace qixx::watch
