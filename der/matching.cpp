#include "der/matching.h"

#include <cstdint>

#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::der {
namespace {

/// A validity time as the number YYYYMMDDhhmmss, 0 for what RFC 5280 (4.1.2.5) does not know.
std::uint64_t MomentOf(Bytes time) {
  constexpr std::size_t kUtcDigits = 12;
  constexpr std::size_t kGeneralizedDigits = 14;
  constexpr std::uint64_t kCentury = 1'00'00'00'00'00'00;
  const std::string_view text = runtime::AsText(ContentOf(time));
  if (text.size() == kGeneralizedDigits + 1) return runtime::ParseDecimal(text);
  if (text.size() != kUtcDigits + 1) return 0;
  const std::uint64_t moment = runtime::ParseDecimal(text);
  return moment + (moment < kCentury / 2 ? 20 * kCentury : 19 * kCentury);
}

}  // namespace

bool AreDuplicates(const CertificateHolder& a, const CertificateHolder& b) {
  if (a.superseded || b.superseded || a.slot != b.slot) return false;
  if (!a.certificate.HasSameIssuer(b.certificate)) return false;
  if (!a.certificate.HasSameSubject(b.certificate)) return false;
  if (!SameBytes(a.certificate.KeyUsage(), b.certificate.KeyUsage())) return false;
  runtime::TraceWrite("Certificate - Duplicate");
  return true;
}

bool RanksHigher(const CertificateHolder& a, const CertificateHolder& b) {
  const std::uint64_t endOfA = MomentOf(a.certificate.NotAfter());
  const std::uint64_t endOfB = MomentOf(b.certificate.NotAfter());
  if (endOfA != endOfB) return endOfA > endOfB;
  return MomentOf(a.certificate.NotBefore()) > MomentOf(b.certificate.NotBefore());
}

}  // namespace qixx::der
