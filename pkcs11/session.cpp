#include "pkcs11/session.h"

#include <algorithm>
#include <utility>

#include "pkcs11/wrapper.h"

namespace qixx::pkcs11 {
namespace {

/// More slots are not looked at, whatever a library says.
constexpr CK_ULONG kMaxSlots = 4096;

}  // namespace

SlotList ListSlots(CK_BBOOL withToken) {
  CK_ULONG count = 0;
  CK_RV result = Pkcs11().GetSlotList(withToken, nullptr, &count);
  if (result != CKR_OK || count == 0) return {result, {}};
  std::vector<CK_SLOT_ID> slots(std::min(count, kMaxSlots));
  count = slots.size();
  result = Pkcs11().GetSlotList(withToken, slots.data(), &count);
  if (result != CKR_OK) return {result, {}};
  slots.resize(std::min<std::size_t>(count, slots.size()));
  return {CKR_OK, std::move(slots)};
}

std::vector<CK_SLOT_ID> ListTokenSlots() {
  return ListSlots(CK_TRUE).slots;
}

std::optional<Session> Session::Open(CK_SLOT_ID slot, CK_RV* refusal) {
  CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
  const CK_RV result =
      Pkcs11().OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &handle);
  if (result == CKR_OK) return Session(handle);
  if (refusal != nullptr) *refusal = result;
  return std::nullopt;
}

Session::Session(Session&& other) noexcept
    : handle_(other.handle_), owned_(std::exchange(other.owned_, false)) {}

Session::~Session() {
  if (owned_) Pkcs11().CloseSession(handle_);
}

ObjectSearch::ObjectSearch(const Session& session, std::span<CK_ATTRIBUTE> attributes)
    : session_(session.Handle()),
      active_(Pkcs11().FindObjectsInit(session_, attributes.data(), attributes.size()) == CKR_OK) {}

ObjectSearch::~ObjectSearch() {
  if (active_) Pkcs11().FindObjectsFinal(session_);
}

FoundObject ObjectSearch::Next() {
  if (!active_) return {SearchResult::kFailure};
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  CK_ULONG count = 0;
  if (Pkcs11().FindObjects(session_, &object, 1, &count) != CKR_OK) return {SearchResult::kFailure};
  if (count != 1) return {SearchResult::kNothing};
  return {SearchResult::kObject, object};
}

FoundObject FindFirstObject(const Session& session, std::span<CK_ATTRIBUTE> attributes) {
  ObjectSearch search(session, attributes);
  return search.Next();
}

std::optional<SessionObject> FindObjectOnSlot(CK_SLOT_ID slot, std::span<CK_ATTRIBUTE> attributes) {
  std::optional<Session> session = Session::Open(slot);
  if (!session) return std::nullopt;
  const FoundObject found = FindFirstObject(*session, attributes);
  if (found.result != SearchResult::kObject) return std::nullopt;
  return SessionObject{slot, std::move(*session), found.object};
}

}  // namespace qixx::pkcs11
