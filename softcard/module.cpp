#include "softcard/module.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "softcard/files.h"

namespace qixx::softcard {
namespace {

constexpr std::size_t kMaxSessions = 4096;
constexpr const char* kManufacturer = "Tessaly";
constexpr CK_VERSION kOwnVersion = {0, 1};

/// The standard's texts fill their field with blanks and have no terminator.
void Pad(std::span<CK_UTF8CHAR> field, std::string_view text) {
  std::ranges::fill(field, CK_UTF8CHAR{' '});
  std::copy_n(text.begin(), std::min(text.size(), field.size()), field.begin());
}

std::map<CK_SLOT_ID, CardIdentity> CardsNow() {
  std::map<CK_SLOT_ID, CardIdentity> cards;
  for (const CK_SLOT_ID slot : ListSlots()) {
    if (const auto card = CardIn(slot)) cards.emplace(slot, *card);
  }
  return cards;
}

std::string SerialNumberOf(const CardIdentity& card) {
  char text[17];
  const auto number = card.number ^ (static_cast<std::uint64_t>(card.seconds) << 24);
  std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(number));
  return text;
}

const CK_ATTRIBUTE* Find(const Template& attributes, CK_ATTRIBUTE_TYPE type) {
  auto* const found = std::ranges::find(attributes, type, &CK_ATTRIBUTE::type);
  return found == attributes.end() ? nullptr : found;
}

/// Whether the template describes the object of the token's variables, whatever value it gives.
CK_RV CheckVariablesTemplate(const Template& wanted) {
  for (const CK_ATTRIBUTE_TYPE required : {CKA_CLASS, CKA_TOKEN, CKA_APPLICATION}) {
    if (Find(wanted, required) == nullptr) return CKR_TEMPLATE_INCOMPLETE;
  }
  const Object object = VariablesObject("", true);
  for (CK_ATTRIBUTE& attribute : wanted) {
    if (!object.attributes.contains(attribute.type)) return CKR_ATTRIBUTE_TYPE_INVALID;
    if (attribute.type == CKA_VALUE || Matches(object, {&attribute, 1})) continue;
    // A private object needs a login, and there is none.
    return attribute.type == CKA_PRIVATE ? CKR_USER_NOT_LOGGED_IN : CKR_TEMPLATE_INCONSISTENT;
  }
  return CKR_OK;
}

}  // namespace

Module::Module(bool suite) : suite_(suite), seen_(CardsNow()) {}

// --- slots and tokens ---------------------------------------------------------------------------

CK_RV Module::GetInfo(CK_INFO_PTR info) {
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  *info = {};
  info->cryptokiVersion = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR};
  info->libraryVersion = kOwnVersion;
  Pad(info->manufacturerID, kManufacturer);
  Pad(info->libraryDescription, "Soft card");
  return CKR_OK;
}

CK_RV Module::GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR slots, CK_ULONG_PTR count) {
  std::vector<CK_SLOT_ID> list = ListSlots();
  if (tokenPresent != CK_FALSE) std::erase_if(list, [](CK_SLOT_ID slot) { return !CardIn(slot); });
  return pkcs11::HandOut(list, slots, count);
}

CK_RV Module::GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info) {
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  if (!IsSlot(slot)) return CKR_SLOT_ID_INVALID;
  const SlotFacts facts = ReadSlotFacts(slot);
  *info = {};
  info->flags = facts.flags | (CardIn(slot) ? CKF_TOKEN_PRESENT : 0);
  info->hardwareVersion = kOwnVersion;
  info->firmwareVersion = kOwnVersion;
  Pad(info->slotDescription, facts.description);
  Pad(info->manufacturerID, facts.manufacturer);
  return CKR_OK;
}

CK_RV Module::GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) const {
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  if (!IsSlot(slot)) return CKR_SLOT_ID_INVALID;
  const std::optional<CardIdentity> card = CardIn(slot);
  if (!card) return CKR_TOKEN_NOT_PRESENT;
  *info = {};
  info->flags = CKF_TOKEN_INITIALIZED;
  info->ulMaxSessionCount = kMaxSessions;
  info->ulSessionCount = CountSessions(*card, 0);
  info->ulMaxRwSessionCount = kMaxSessions;
  info->ulRwSessionCount = CountSessions(*card, CKF_RW_SESSION);
  info->ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
  info->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
  info->ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
  info->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
  info->hardwareVersion = kOwnVersion;
  info->firmwareVersion = kOwnVersion;
  Pad(info->label, "Soft card " + std::to_string(slot));
  Pad(info->manufacturerID, kManufacturer);
  Pad(info->model, "Soft card");
  Pad(info->serialNumber, SerialNumberOf(*card));
  Pad(info->utcTime, "");
  return CKR_OK;
}

CK_RV Module::GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR mechanisms,
                               CK_ULONG_PTR count) {
  if (!IsSlot(slot)) return CKR_SLOT_ID_INVALID;
  if (!CardIn(slot)) return CKR_TOKEN_NOT_PRESENT;
  return pkcs11::HandOut({}, mechanisms, count);
}

CK_RV Module::TakeSlotEvent(CK_SLOT_ID& slot) {
  const std::map<CK_SLOT_ID, CardIdentity> now = CardsNow();
  if (now == seen_) return CKR_NO_EVENT;
  // Two ordered lists: the first place where they part is the lowest slot that changed.
  const auto [before, after] = std::mismatch(seen_.begin(), seen_.end(), now.begin(), now.end());
  const bool isNew = before == seen_.end() || (after != now.end() && after->first <= before->first);
  slot = isNew ? after->first : before->first;
  if (isNew) {
    seen_[slot] = after->second;
  } else {
    seen_.erase(slot);
  }
  return CKR_OK;
}

// --- sessions -----------------------------------------------------------------------------------

CK_RV Module::OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR /*application*/,
                          CK_NOTIFY /*notify*/, CK_SESSION_HANDLE_PTR session) {
  if (session == nullptr) return CKR_ARGUMENTS_BAD;
  if ((flags & CKF_SERIAL_SESSION) == 0) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
  if (!IsSlot(slot)) return CKR_SLOT_ID_INVALID;
  if (sessions_.size() >= kMaxSessions) return CKR_SESSION_COUNT;
  const std::optional<CardIdentity> card = ReadToken(slot);
  if (!card) return CKR_TOKEN_NOT_PRESENT;
  sessions_[nextSession_] = Session{slot, flags, *card, {}, 0};
  *session = nextSession_++;
  return CKR_OK;
}

CK_RV Module::CloseSession(CK_SESSION_HANDLE session) {
  return sessions_.erase(session) != 0 ? CKR_OK : CKR_SESSION_HANDLE_INVALID;
}

CK_RV Module::CloseAllSessions(CK_SLOT_ID slot) {
  if (!IsSlot(slot)) return CKR_SLOT_ID_INVALID;
  std::erase_if(sessions_, [slot](const auto& entry) { return entry.second.slot == slot; });
  return CKR_OK;
}

CK_RV Module::GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info) {
  const Access access = Enter(session);
  if (access.result != CKR_OK) return access.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  const bool writable = (access.session->flags & CKF_RW_SESSION) != 0;
  *info = {access.session->slot, writable ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION,
           access.session->flags & (CKF_RW_SESSION | CKF_SERIAL_SESSION), 0};
  return CKR_OK;
}

/// A session ends with its card. The first call that notices is told so; for the later ones, and
/// for the other sessions on that card, the handle is simply gone.
Module::Access Module::Enter(CK_SESSION_HANDLE session, CK_FLAGS flags) {
  const auto found = sessions_.find(session);
  if (found == sessions_.end()) return {CKR_SESSION_HANDLE_INVALID};
  const CK_SLOT_ID slot = found->second.slot;
  const CardIdentity card = found->second.card;
  // The card that was read last counts too: one that was away meanwhile has lost its sessions.
  if (CardIn(slot) != card || tokens_[slot].card != card) {
    std::erase_if(sessions_, [&card](const auto& entry) { return entry.second.card == card; });
    return {CKR_DEVICE_REMOVED};
  }
  if ((found->second.flags & flags) != flags) return {CKR_SESSION_READ_ONLY};
  return {CKR_OK, &found->second, &tokens_[slot]};
}

Module::Access Module::EnterWithObject(CK_SESSION_HANDLE session, CK_FLAGS flags,
                                       CK_OBJECT_HANDLE object, const Template& wanted) {
  Access access = Enter(session, flags);
  if (access.result != CKR_OK) return access;
  if (!wanted.IsValid()) return {CKR_ARGUMENTS_BAD};
  const auto held = access.token->objects.find(object);
  if (held == access.token->objects.end()) return {CKR_OBJECT_HANDLE_INVALID};
  access.object = &held->second;
  return access;
}

CK_ULONG Module::CountSessions(const CardIdentity& card, CK_FLAGS flags) const {
  return static_cast<CK_ULONG>(
      std::count_if(sessions_.begin(), sessions_.end(), [&](const auto& entry) {
        return entry.second.card == card && (entry.second.flags & flags) == flags;
      }));
}

std::optional<CardIdentity> Module::ReadToken(CK_SLOT_ID slot) {
  std::optional<Card> card = ReadCard(slot);
  if (!card) return {};
  Token& token = tokens_[slot];
  if (token.card != card->identity) token = Token{card->identity, {}, {}};
  std::map<CK_OBJECT_HANDLE, Object> objects;
  for (Object& object : ObjectsOf(card->files, suite_)) {
    const auto [known, isNew] = token.handles.emplace(object.source, nextObject_);
    if (isNew) ++nextObject_;
    objects.emplace(known->second, std::move(object));
  }
  token.objects = std::move(objects);
  return token.card;
}

// --- objects ------------------------------------------------------------------------------------

CK_RV Module::FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes,
                              CK_ULONG count) {
  const Access access = Enter(session);
  if (access.result != CKR_OK) return access.result;
  const Template wanted{attributes, count};
  if (!wanted.IsValid()) return CKR_ARGUMENTS_BAD;
  if (access.session->found) return CKR_OPERATION_ACTIVE;
  std::vector<CK_OBJECT_HANDLE> found;
  for (const auto& [handle, object] : access.token->objects) {
    if (Matches(object, wanted)) found.push_back(handle);
  }
  access.session->found = std::move(found);
  access.session->next = 0;
  return CKR_OK;
}

CK_RV Module::FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG maximum,
                          CK_ULONG_PTR count) {
  const Access access = Enter(session);
  if (access.result != CKR_OK) return access.result;
  if (count == nullptr || (objects == nullptr && maximum != 0)) return CKR_ARGUMENTS_BAD;
  if (!access.session->found) return CKR_OPERATION_NOT_INITIALIZED;
  const std::vector<CK_OBJECT_HANDLE>& found = *access.session->found;
  const std::size_t taken = std::min<std::size_t>(maximum, found.size() - access.session->next);
  std::copy_n(found.begin() + static_cast<std::ptrdiff_t>(access.session->next), taken, objects);
  access.session->next += taken;
  *count = taken;
  return CKR_OK;
}

CK_RV Module::FindObjectsFinal(CK_SESSION_HANDLE session) {
  const Access access = Enter(session);
  if (access.result != CKR_OK) return access.result;
  if (!access.session->found) return CKR_OPERATION_NOT_INITIALIZED;
  access.session->found.reset();
  return CKR_OK;
}

CK_RV Module::GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
  const Template wanted{attributes, count};
  const Access access = EnterWithObject(session, 0, object, wanted);
  return access.result == CKR_OK ? ReadAttributes(*access.object, wanted) : access.result;
}

CK_RV Module::CreateObject(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                           CK_OBJECT_HANDLE_PTR object) {
  const Access access = Enter(session, CKF_RW_SESSION);
  if (access.result != CKR_OK) return access.result;
  const Template wanted{attributes, count};
  if (!wanted.IsValid() || object == nullptr) return CKR_ARGUMENTS_BAD;
  if (const CK_RV fault = CheckVariablesTemplate(wanted); fault != CKR_OK) return fault;

  const std::string source = VariablesObject("", true).source;
  const auto isVariables = [&source](const auto& entry) { return entry.second.source == source; };
  const auto& objects = access.token->objects;
  if (std::any_of(objects.begin(), objects.end(), isVariables)) {
    return CKR_DEVICE_MEMORY;  // the card has room for one
  }
  const CK_ATTRIBUTE* const value = Find(wanted, CKA_VALUE);
  if (const CK_RV fault = WriteVariables(access.session->slot, value); fault != CKR_OK)
    return fault;
  const auto made = std::find_if(objects.begin(), objects.end(), isVariables);
  if (made == objects.end()) return CKR_DEVICE_REMOVED;
  *object = made->first;
  return CKR_OK;
}

CK_RV Module::SetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
  const Template wanted{attributes, count};
  const Access access = EnterWithObject(session, CKF_RW_SESSION, object, wanted);
  if (access.result != CKR_OK) return access.result;
  CK_ATTRIBUTE modifiable{CKA_MODIFIABLE, const_cast<CK_BBOOL*>(&CK_TRUE), sizeof CK_TRUE};
  if (!Matches(*access.object, {&modifiable, 1})) return CKR_ATTRIBUTE_READ_ONLY;
  for (const CK_ATTRIBUTE& attribute : wanted) {
    if (attribute.type == CKA_VALUE) continue;
    const bool isHeld = access.object->attributes.contains(attribute.type);
    return isHeld ? CKR_ATTRIBUTE_READ_ONLY : CKR_ATTRIBUTE_TYPE_INVALID;
  }
  const CK_ATTRIBUTE* const value = Find(wanted, CKA_VALUE);
  return value == nullptr ? CKR_OK : WriteVariables(access.session->slot, value);
}

CK_RV Module::WriteVariables(CK_SLOT_ID slot, const CK_ATTRIBUTE* value) {
  std::string_view bytes;
  if (value != nullptr && value->ulValueLen != 0) {
    if (value->pValue == nullptr || value->ulValueLen > kMaxFileSize) {
      return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    bytes = {static_cast<const char*>(value->pValue), value->ulValueLen};
  }
  const std::optional<std::string> lines = DecodeVariables(bytes);
  if (!lines || lines->size() > kMaxFileSize) return CKR_ATTRIBUTE_VALUE_INVALID;
  if (const CK_RV fault = WriteCardFile(slot, kVariablesFile, *lines); fault != CKR_OK)
    return fault;
  return ReadToken(slot) ? CKR_OK : CKR_DEVICE_REMOVED;
}

}  // namespace qixx::softcard
