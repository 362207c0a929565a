#include "softcard/readers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "softcard/files.h"

namespace qixx::softcard {
namespace {

/// The all-ones 32-bit value stands for "no slot" in programs that keep ids in 32 bits.
constexpr CK_SLOT_ID kMaxSlot = 0xFFFFFFFE;
/// How often a card that is changed while it is read is tried again.
constexpr int kMaxReadAttempts = 3;

std::string SlotFolder(CK_SLOT_ID slot) {
  const std::string folder = SoftcardFolder();
  return folder.empty() ? folder : folder + "/" + std::to_string(slot);
}

std::string CardFolder(CK_SLOT_ID slot) {
  const std::string folder = SlotFolder(slot);
  return folder.empty() ? folder : folder + "/card";
}

bool IsFolder(const std::string& path) {
  struct stat facts = {};
  return ::stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

/// The identity of a folder given by its path or, with an empty path, by its descriptor.
std::optional<CardIdentity> IdentityOf(int folder, const std::string& path) {
  struct statx facts = {};
  if (::statx(folder, path.c_str(), path.empty() ? AT_EMPTY_PATH : 0,
              STATX_BASIC_STATS | STATX_BTIME, &facts) != 0 ||
      !S_ISDIR(facts.stx_mode)) {
    return {};
  }
  const statx_timestamp& time =
      (facts.stx_mask & STATX_BTIME) != 0 ? facts.stx_btime : facts.stx_ctime;
  return CardIdentity{(std::uint64_t{facts.stx_dev_major} << 32) | facts.stx_dev_minor,
                      facts.stx_ino, time.tv_sec, time.tv_nsec};
}

std::vector<CardFile> ReadFiles(int folder) {
  std::vector<CardFile> files;
  std::size_t room = kMaxCardSize;
  for (const std::string& name : ListNames(folder)) {
    std::optional<std::string> content = ReadSmallFile(folder, name);
    if (!content || content->size() > room) continue;
    room -= content->size();
    files.push_back({name, std::move(*content)});
  }
  return files;
}

CK_RV ResultOfWrite(int error) {
  switch (error) {
    case 0:
      return CKR_OK;
    case EACCES:
    case EPERM:
    case EROFS:
      return CKR_TOKEN_WRITE_PROTECTED;
    case ENOSPC:
    case EDQUOT:
      return CKR_DEVICE_MEMORY;
    default:
      return CKR_DEVICE_ERROR;
  }
}

}  // namespace

std::string SoftcardFolder() {
  if (const char* named = std::getenv("QIXX_SOFTCARD"); named != nullptr && *named != '\0') {
    return named;
  }
  const char* const home = std::getenv("HOME");
  return home == nullptr || *home == '\0' ? std::string() : std::string(home) + "/.qix/softcard";
}

std::vector<CK_SLOT_ID> ListSlots() {
  std::vector<CK_SLOT_ID> slots;
  const Descriptor folder(OpenFolder(SoftcardFolder()));
  if (!folder.IsOpen()) return slots;
  for (const std::string& name : ListNames(folder.Get())) {
    const std::optional<unsigned long> slot = ReadNumber(name);
    // Only the plain spelling counts, so that no two folders stand for one slot.
    if (slot && std::to_string(*slot) == name && IsSlot(*slot)) slots.push_back(*slot);
  }
  std::sort(slots.begin(), slots.end());
  return slots;
}

bool IsSlot(CK_SLOT_ID slot) {
  return slot <= kMaxSlot && IsFolder(SlotFolder(slot));
}

SlotFacts ReadSlotFacts(CK_SLOT_ID slot) {
  SlotFacts facts{"Soft reader " + std::to_string(slot), "Tessaly",
                  CKF_REMOVABLE_DEVICE | CKF_HW_SLOT};
  const Descriptor folder(OpenFolder(SlotFolder(slot)));
  if (!folder.IsOpen()) return facts;
  for (const Setting& setting : ReadSettings(ReadSmallFile(folder.Get(), "slot").value_or(""))) {
    if (setting.name == "description") facts.description = setting.value;
    if (setting.name == "manufacturer") facts.manufacturer = setting.value;
    if (setting.name == "flags") {
      facts.flags = ReadNumber(setting.value).value_or(facts.flags) & ~CKF_TOKEN_PRESENT;
    }
  }
  return facts;
}

std::optional<CardIdentity> CardIn(CK_SLOT_ID slot) {
  const std::string folder = CardFolder(slot);
  if (folder.empty() || slot > kMaxSlot) return {};
  return IdentityOf(AT_FDCWD, folder);
}

std::optional<Card> ReadCard(CK_SLOT_ID slot) {
  for (int attempt = 0; attempt < kMaxReadAttempts; ++attempt) {
    const Descriptor folder(OpenFolder(CardFolder(slot)));
    if (!folder.IsOpen()) return {};
    const std::optional<CardIdentity> identity = IdentityOf(folder.Get(), "");
    if (!identity) return {};
    Card card{*identity, ReadFiles(folder.Get())};
    if (CardIn(slot) == identity) return card;
  }
  return {};
}

CK_RV WriteCardFile(CK_SLOT_ID slot, const std::string& name, const std::string& content) {
  const Descriptor folder(OpenFolder(CardFolder(slot)));
  if (!folder.IsOpen()) return CKR_TOKEN_NOT_PRESENT;
  return ResultOfWrite(ReplaceFile(folder.Get(), name, content));
}

}  // namespace qixx::softcard
