// A library that is no PKCS#11 module, but exports names of the extension.
#include "pkcs11/extended.h"

QIXX_CK_EXPORT CK_RV C_ResetToken(CK_ULONG /*first*/, CK_ULONG /*second*/, CK_ULONG /*third*/) {
  return CKR_OK;
}

QIXX_CK_EXPORT int QixEventDescriptor() {
  return 0;
}
