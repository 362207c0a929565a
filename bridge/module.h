// The standard PKCS#11 module that the bridge stands on.
#pragma once

#include <string>

#include "bridge/reader_filter.h"
#include "pkcs11/cryptoki.h"

namespace qixx::bridge {

struct Module {
  const CK_FUNCTION_LIST* functions = nullptr;  ///< of a module that stays loaded; null for none
  ReaderFilter filter;
  std::string fault = {};  ///< why there are none, in words
};

/// Finds and loads the module; no functions when that fails (the fault and a trace line say why).
/// What the module leaves out of its list answers CKR_FUNCTION_NOT_SUPPORTED here, so no entry is
/// null. Section "Pkcs11" says which module it is (entry "Module", a path or a name; without it
/// "opensc-pkcs11.so") and which readers count (entries "Readers" and "Ignore"). A name is looked
/// for by the platform's loader and then in the folders in which distributions keep such modules.
///
/// Once loaded, the module stays for the life of the process, whose exit handlers it may have
/// joined. Switches the bridge's trace on, entry "bridge" of section "Trace", else "File". A call
/// after a failure reads the configuration again. Callers serialise.
[[nodiscard]] Module LoadModule();

}  // namespace qixx::bridge
