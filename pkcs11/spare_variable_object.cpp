#include "pkcs11/spare_variable_object.h"

#include <utility>
#include <vector>

#include "pkcs11/token_variables.h"
#include "pkcs11/wrapper.h"

namespace qixx::pkcs11 {

std::optional<SessionObject> FindOrCreateVariableObject(CK_SLOT_ID slot, bool isPrivate) {
  if (slot == 0) return std::nullopt;
  VariableTemplate attributes(isPrivate);
  std::optional<Session> session = Session::Open(slot);
  if (!session) return std::nullopt;
  FoundObject found = FindFirstObject(*session, attributes.ToFind());
  if (found.result == SearchResult::kFailure) return std::nullopt;
  if (found.result == SearchResult::kNothing) {
    const std::vector<CK_BYTE> none = BuildTokenVariables({});
    const std::span<CK_ATTRIBUTE> created = attributes.ToCreate(none);
    if (Pkcs11().CreateObject(session->Handle(), created.data(), created.size(), &found.object) !=
        CKR_OK) {
      return std::nullopt;
    }
  }
  return SessionObject{slot, std::move(*session), found.object};
}

}  // namespace qixx::pkcs11
