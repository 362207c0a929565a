// Which of two certificates counts. All functions may be called from any thread.
#pragma once

#include "der/certificate.h"

namespace qixx::der {

/// Two certificates of one slot group, neither superseded, that agree in issuer, subject and key
/// usage. Traces a duplicate.
[[nodiscard]] bool AreDuplicates(const CertificateHolder& a, const CertificateHolder& b);

/// Whether `a` outranks `b`: by the later end of validity, then by the later start. Of two that
/// rank the same the one found first is kept, so the answer is false.
[[nodiscard]] bool RanksHigher(const CertificateHolder& a, const CertificateHolder& b);

}  // namespace qixx::der
