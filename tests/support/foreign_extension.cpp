// A library that is no PKCS#11 module, but exports names of the extension.
#include "pkcs11/extended.h"

QIXX_CK_EXPORT CK_RV C_ResetToken(qixx::pkcs11::ExtensionWord /*first*/,
                                  qixx::pkcs11::ExtensionWord /*second*/,
                                  qixx::pkcs11::ExtensionWord /*third*/) {
  return CKR_OK;
}

QIXX_CK_EXPORT CK_RV C_RemoveExternalSlot(qixx::pkcs11::ExtensionWord /*first*/) {
  return CKR_OK;
}

QIXX_CK_EXPORT int QixEventDescriptor() {
  return 0;
}
