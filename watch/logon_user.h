// Who is logged on, and which slot is recorded for that user.
//
// spare: asked of this layer by the suite's design, built and tested; this platform has no answer,
// so the logon variant of the slot loop ends at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pkcs11/cryptoki.h"
#include "watch/card_reader.h"

namespace qixx::watch {

/// Longest name of the logon user.
inline constexpr std::size_t kMaxLogonUser = 99;

/// What is recorded for a user: the description of the slot that the card was in, and its
/// certificate.
struct LogonRecord {
  SlotDescription identity = {};
  std::vector<std::uint8_t> certificate;
};

/// What the platform is asked about the logon user; tests hand in answers of their own.
class LogonUser {
 public:
  virtual ~LogonUser() = default;
  /// The name of the user who is logged on, at most kMaxLogonUser characters; empty is nobody.
  [[nodiscard]] virtual std::optional<std::string> Name() = 0;
  [[nodiscard]] virtual std::optional<LogonRecord> Record(const std::string& user) = 0;
};

/// This platform: it does not tell who is logged on, and its credential store keeps nothing.
class PlatformLogonUser final : public LogonUser {
 public:
  std::optional<std::string> Name() override;
  std::optional<LogonRecord> Record(const std::string& user) override;
};

struct LogonSlot {
  CK_SLOT_ID slot = kNoSlot;
  std::vector<std::uint8_t> certificate;
};
/// The first of the slots whose description equals the recorded one, kNoSlot when none does.
/// Nothing when the question cannot be answered.
[[nodiscard]] std::optional<LogonSlot> FindLogonSlot(CardReader& card, LogonUser& logonUser,
                                                     const std::string& user,
                                                     std::span<const CK_SLOT_ID> slots);

}  // namespace qixx::watch
