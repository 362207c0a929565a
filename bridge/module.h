// The standard PKCS#11 module that the bridge stands on.
#pragma once

#include "pkcs11/cryptoki.h"

namespace qixx::bridge {

/// Finds and loads the module and returns its functions; null when that fails (a trace line says
/// why). What the module leaves out of its list answers CKR_FUNCTION_NOT_SUPPORTED here, so no
/// entry is null. Which module it is says entry "Module" of section "Pkcs11", a path or a name;
/// without it, "opensc-pkcs11.so". A name is looked for by the platform's loader and then in the
/// folders in which distributions keep such modules.
///
/// Once loaded, the module stays for the life of the process, whose exit handlers it may have
/// joined. Switches the bridge's trace on, entry "bridge" of section "Trace", else "File". A call
/// after a failure reads the configuration again. Callers serialise.
[[nodiscard]] const CK_FUNCTION_LIST* LoadModule();

}  // namespace qixx::bridge
