// Reading the certificate objects of a token, and the list of entries that is kept of them over
// several collections.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "der/certificate.h"
#include "pkcs11/session.h"

namespace qixx::pkcs11 {

/// The slot field and the kind of a free certificate entry.
inline constexpr CK_SLOT_ID kFreeSlot = 0xFFFFFFFF;
inline constexpr std::uint32_t kFreeKind = 0xFFFFFFFF;

/// What a certificate object holds at most, in bytes.
inline constexpr std::size_t kMaxCertificateBytes = 16384;
inline constexpr std::size_t kMaxLabel = 255;

/// Every key usage.
inline constexpr std::uint8_t kAnyKeyUsage = 255;

/// What a collection asks of a certificate. The names are filters as CDerCert::MatchNames takes
/// them, for the issuer and for the subject unless they say otherwise. An absent one asks for
/// nothing; an empty one matches, but asks for a certificate that can be parsed.
struct CertificateFilter {
  std::uint8_t keyUsageMask = kAnyKeyUsage;
  std::optional<std::string> issuer = std::nullopt;
  std::optional<std::string> subject = std::nullopt;

  [[nodiscard]] bool AsksForNothing() const;
  [[nodiscard]] bool Passes(const der::CDerCert& certificate) const;
};

/// A certificate found on a token.
struct CertificateEntry {
  CK_SLOT_ID slot = kFreeSlot;  ///< where it was read; kFreeSlot marks a free entry
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;  ///< in which it was read, closed since
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  std::uint32_t kind = kFreeKind;  ///< its certificate type while in use
  std::vector<std::uint8_t> value;
  std::vector<std::uint8_t> keyIdentifier;
  std::string label;      ///< up to its first zero byte
  std::string notBefore;  ///< as the certificate writes it, empty when it cannot be had
  std::string notAfter;
  bool expired = false;  ///< at the time of reading

  [[nodiscard]] bool IsFree() const { return slot == kFreeSlot; }
  /// Makes the entry a free one.
  void Clear() { *this = CertificateEntry{}; }
};

/// Calls `take` with each X.509 certificate object of the token, as the search finds it. kFailure
/// when the search does.
SearchResult ForEachCertificate(const Session& session,
                                const std::function<void(CK_OBJECT_HANDLE)>& take);

/// Reads an object of the token in `slot`, without its validity. Nothing, and the object is to be
/// passed over, unless every attribute can be read and fits: cards hold such objects, and the
/// others still count.
[[nodiscard]] std::optional<CertificateEntry> ReadCertificate(const Session& session,
                                                              CK_SLOT_ID slot,
                                                              CK_OBJECT_HANDLE object);

/// Clears the entries of slots that are not among `slots`; true when there was one. By design the
/// walk stops at the first entry whose slot is still there: stale entries behind it survive one
/// more collection.
bool ClearStaleEntries(std::span<CertificateEntry> entries, std::span<const CK_SLOT_ID> slots);

/// Puts what was read, with its validity, into the first free entry. False when the filter refuses
/// it, when an entry of its slot holds the value already or when no entry is free.
bool AddEntry(std::span<CertificateEntry> entries, CertificateEntry read,
              const CertificateFilter& filter);

/// Moves expired certificates behind the others, each group in its order. Returns the number of
/// entries without those at the end that hold no value.
std::size_t OrderEntries(std::span<CertificateEntry> entries);

}  // namespace qixx::pkcs11
