// The folder that stands for the card readers.
//
// Nothing is cached: every question is answered from the disk as it is at that moment.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pkcs11/cryptoki.h"

namespace qixx::softcard {

/// What the files of one card may hold together, in bytes; further files are left out.
inline constexpr std::size_t kMaxCardSize = std::size_t{16} << 20;

/// The variable QIXX_SOFTCARD, else ".qix/softcard" in the home folder; empty without either.
[[nodiscard]] std::string SoftcardFolder();

/// Tells one inserted card from the next in the same slot. The birth time of the folder is part of
/// it because file systems hand a folder number out again at once; where none is kept the time of
/// the last change stands in, and a card that is written to counts as another one.
struct CardIdentity {
  std::uint64_t device = 0;
  std::uint64_t number = 0;
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;
  friend auto operator<=>(const CardIdentity&, const CardIdentity&) = default;
};

struct SlotFacts {
  std::string description;
  std::string manufacturer;
  CK_FLAGS flags = 0;  ///< without CKF_TOKEN_PRESENT
};

struct CardFile {
  std::string name;
  std::string content;
};

struct Card {
  CardIdentity identity;
  std::vector<CardFile> files;  ///< in byte order of their names
};

/// The slots in ascending order.
[[nodiscard]] std::vector<CK_SLOT_ID> ListSlots();
[[nodiscard]] bool IsSlot(CK_SLOT_ID slot);
[[nodiscard]] SlotFacts ReadSlotFacts(CK_SLOT_ID slot);
/// The card in the slot; nothing when the slot is empty or missing.
[[nodiscard]] std::optional<CardIdentity> CardIn(CK_SLOT_ID slot);
/// The card with its files, all of them from one and the same card.
[[nodiscard]] std::optional<Card> ReadCard(CK_SLOT_ID slot);
/// Writes a file of the card in one step. CKR_OK, CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_WRITE_PROTECTED,
/// CKR_DEVICE_MEMORY or CKR_DEVICE_ERROR.
[[nodiscard]] CK_RV WriteCardFile(CK_SLOT_ID slot, const std::string& name,
                                  const std::string& content);

}  // namespace qixx::softcard
