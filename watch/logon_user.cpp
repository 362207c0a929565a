#include "watch/logon_user.h"

#include <algorithm>

#include "runtime/files.h"

namespace qixx::watch {

std::optional<std::string> PlatformLogonUser::Name() {
  return std::nullopt;
}

std::optional<LogonRecord> PlatformLogonUser::Record(const std::string& user) {
  // The store holds no more than a text for a name, so there is no certificate to go with it.
  const std::optional<std::string> identity = runtime::GetStoredCredential(user);
  if (!identity) return std::nullopt;
  LogonRecord record;
  identity->copy(record.identity.data(), record.identity.size());
  return record;
}

std::optional<LogonSlot> FindLogonSlot(CardReader& card, LogonUser& logonUser,
                                       const std::string& user, std::span<const CK_SLOT_ID> slots) {
  std::optional<LogonRecord> record = logonUser.Record(user);
  if (!record) return std::nullopt;
  const auto found = std::ranges::find_if(slots, [&card, &record](CK_SLOT_ID slot) {
    return card.Description(slot) == record->identity;
  });
  return LogonSlot{found == slots.end() ? kNoSlot : *found, std::move(record->certificate)};
}

}  // namespace qixx::watch
