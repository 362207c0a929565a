// The module between C_Initialize and C_Finalize: slots, sessions, searches, objects.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pkcs11/entry.h"
#include "softcard/objects.h"
#include "softcard/readers.h"

namespace qixx::softcard {

/// The answer to every function that the module does not serve.
struct Unserved {
#define SOFTCARD_REFUSE(name, parameters, arguments) \
  static constexpr CK_C_##name name = &pkcs11::Refuse;
  QIXX_CK_FUNCTIONS(SOFTCARD_REFUSE)
#undef SOFTCARD_REFUSE
};

/// Serves the functions of the same names under the rules of PKCS#11 2.40. Not locked: whoever owns
/// it lets one call in at a time. May throw std::bad_alloc.
class Module : public Unserved {
 public:
  /// The readers as they are now are what the first slot event is compared with. `suite` tells
  /// whether certificates carry the suite's own attribute.
  explicit Module(bool suite);

  static CK_RV GetInfo(CK_INFO_PTR info);
  static CK_RV GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR slots, CK_ULONG_PTR count);
  static CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info);
  CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) const;
  static CK_RV GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR mechanisms,
                                CK_ULONG_PTR count);

  /// Reads the card anew, so that a session sees it as it is when the session begins.
  CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR session);
  CK_RV CloseSession(CK_SESSION_HANDLE session);
  CK_RV CloseAllSessions(CK_SLOT_ID slot);
  CK_RV GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info);

  CK_RV FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
  CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG maximum,
                    CK_ULONG_PTR count);
  CK_RV FindObjectsFinal(CK_SESSION_HANDLE session);
  CK_RV GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                          CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
  /// Only the object of the token's variables can be made, and one of it.
  CK_RV CreateObject(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                     CK_OBJECT_HANDLE_PTR object);
  /// Only the value of the token's variables can be changed.
  CK_RV SetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                          CK_ATTRIBUTE_PTR attributes, CK_ULONG count);

#define SOFTCARD_ALWAYS(name, answer) static constexpr CK_C_##name name = &pkcs11::Refuse<(answer)>;
  SOFTCARD_ALWAYS(GetMechanismInfo, CKR_MECHANISM_INVALID)
  SOFTCARD_ALWAYS(GetFunctionStatus, CKR_FUNCTION_NOT_PARALLEL)
  SOFTCARD_ALWAYS(CancelFunction, CKR_FUNCTION_NOT_PARALLEL)
#undef SOFTCARD_ALWAYS

  /// One slot whose card came, went or was changed for another since this was last asked about it:
  /// CKR_OK with the slot, the lowest one first; CKR_NO_EVENT otherwise.
  CK_RV TakeSlotEvent(CK_SLOT_ID& slot);

 private:
  struct Session {
    CK_SLOT_ID slot = 0;
    CK_FLAGS flags = 0;
    CardIdentity card;
    std::optional<std::vector<CK_OBJECT_HANDLE>> found;  ///< a search while it is active
    std::size_t next = 0;                                ///< into `found`
  };
  struct Token {
    CardIdentity card;
    std::map<std::string, CK_OBJECT_HANDLE> handles;  ///< by the source of the object
    std::map<CK_OBJECT_HANDLE, Object> objects;
  };
  /// A session whose card is still in, or the error to answer.
  struct Access {
    CK_RV result = CKR_OK;
    Session* session = nullptr;
    Token* token = nullptr;
    const Object* object = nullptr;
  };

  /// The session, which must have been opened with `flags`.
  Access Enter(CK_SESSION_HANDLE session, CK_FLAGS flags = 0);
  /// The same for a call that names an object and gives a template.
  Access EnterWithObject(CK_SESSION_HANDLE session, CK_FLAGS flags, CK_OBJECT_HANDLE object,
                         const Template& wanted);
  [[nodiscard]] CK_ULONG CountSessions(const CardIdentity& card, CK_FLAGS flags) const;
  /// Nothing without a card; handles of objects that are still there stay.
  std::optional<CardIdentity> ReadToken(CK_SLOT_ID slot);
  /// Stores the token's variables, none for a null or empty value, and reads the card again.
  CK_RV WriteVariables(CK_SLOT_ID slot, const CK_ATTRIBUTE* value);

  const bool suite_;
  std::map<CK_SLOT_ID, CardIdentity> seen_;  ///< the cards as last reported
  std::map<CK_SLOT_ID, Token> tokens_;
  std::map<CK_SESSION_HANDLE, Session> sessions_;
  CK_SESSION_HANDLE nextSession_ = 1;
  CK_OBJECT_HANDLE nextObject_ = 1;
};

}  // namespace qixx::softcard
