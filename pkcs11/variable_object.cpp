#include "pkcs11/variable_object.h"

#include <utility>

#include "pkcs11/variable_template.h"
#include "pkcs11/wrapper.h"

namespace qixx::pkcs11 {

std::optional<SessionObject> FindVariableObject(CK_SLOT_ID slot, bool isPrivate) {
  if (slot == 0) return std::nullopt;
  VariableTemplate attributes(isPrivate);
  std::optional<Session> session = Session::Open(slot);
  if (!session) return std::nullopt;
  const FoundObject found = FindFirstObject(*session, attributes.ToFind());
  if (found.result != SearchResult::kObject) return std::nullopt;
  return SessionObject{std::move(*session), found.object};
}

std::optional<std::vector<CK_BYTE>> ReadVariables(const SessionObject& found) {
  const CK_SESSION_HANDLE session = found.session.Handle();
  CK_ATTRIBUTE attribute = {CKA_VALUE, nullptr, 0};
  if (Pkcs11().GetAttributeValue(session, found.object, &attribute, 1) != CKR_OK) return {};
  if (attribute.ulValueLen > kMaxStoredBytes) return {};
  std::vector<CK_BYTE> stored(attribute.ulValueLen);
  attribute.pValue = stored.data();
  if (Pkcs11().GetAttributeValue(session, found.object, &attribute, 1) != CKR_OK) return {};
  if (attribute.ulValueLen > stored.size()) return {};
  stored.resize(attribute.ulValueLen);
  return stored;
}

}  // namespace qixx::pkcs11
