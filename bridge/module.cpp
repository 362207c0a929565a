#include "bridge/module.h"

#include <dlfcn.h>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include "config/store.h"
#include "pkcs11/entry.h"
#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/product.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::bridge {
namespace {

constexpr const char* kDefaultModule = "opensc-pkcs11.so";

/// Where distributions keep PKCS#11 modules. The first is the folder of this machine's architecture
/// where there is one.
constexpr const char* kModuleFolders[] = {
#ifdef QIXX_ARCHITECTURE
    "/usr/lib/" QIXX_ARCHITECTURE "/",
    "/usr/lib/" QIXX_ARCHITECTURE "/pkcs11/",
    "/usr/lib/" QIXX_ARCHITECTURE "/softhsm/",
#endif
    "/usr/lib64/",
    "/usr/lib64/pkcs11/",
    "/usr/lib/",
    "/usr/lib/pkcs11/",
    "/usr/lib64/softhsm/",
    "/usr/lib/softhsm/",
    "/usr/local/lib64/pkcs11/",
    "/usr/local/lib/pkcs11/",
    "/usr/local/lib/",
};

struct Settings {
  std::string module;
  ReaderFilter filter;
};

std::string ReadText(config::CConfig& config, const char* section, const char* entry,
                     std::size_t maxLength = runtime::kMaxText) {
  std::optional<config::ConfigValue> value = config.GetString(section, entry, maxLength);
  return value ? std::move(value->text) : std::string();
}

/// Switches the trace on at first.
Settings ReadSettings() {
  config::CConfig config;
  config.OpenAll(false);  // whatever can be opened is asked
  std::string trace = ReadText(config, "Trace", "bridge");
  if (trace.empty()) trace = ReadText(config, "Trace", "File");
  std::string module = ReadText(config, "Pkcs11", "Module");
  ReaderFilter filter(ReadText(config, "Pkcs11", "Readers", runtime::kMaxLine),
                      ReadText(config, "Pkcs11", "Ignore", runtime::kMaxLine));
  config.Close(true);
  // Each switching on writes a line, and a module that is missing is asked for again and again.
  if (!trace.empty() && !runtime::TraceIsOn()) runtime::TraceSetFile(trace.c_str());
  return {module.empty() ? kDefaultModule : std::move(module), std::move(filter)};
}

/// Kept to itself: the program may hold another module with functions of the same names.
runtime::SharedLibrary Open(const std::string& path, std::string& fault) {
  runtime::SharedLibrary library(::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
  // The first fault is that of the name as configured, which is the one to tell.
  if (const char* const told = ::dlerror(); !library.IsOpen() && fault.empty()) {
    fault = told == nullptr ? "" : told;
  }
  return library;
}

runtime::SharedLibrary Find(const std::string& name, std::string& path, std::string& fault) {
  path = name;
  if (runtime::SharedLibrary library = Open(path, fault); library.IsOpen()) return library;
  if (name.find('/') == std::string::npos) {
    for (const char* const folder : kModuleFolders) {
      path = folder + name;
      if (!runtime::PathExists(path)) continue;
      fault.clear();  // of a file that is there, the fault says more
      if (runtime::SharedLibrary library = Open(path, fault); library.IsOpen()) return library;
    }
  }
  fault = "Failed to load '" + name + "': " + fault;
  return {};
}

void Fill(const CK_FUNCTION_LIST& module, CK_FUNCTION_LIST& functions) {
  // Before the release 2.01 of the standard the list ended in front of its last function.
  const bool isWhole = module.version.major > 2 || module.version.minor >= 1;
  const std::size_t size =
      isWhole ? sizeof(CK_FUNCTION_LIST) : offsetof(CK_FUNCTION_LIST, C_WaitForSlotEvent);
  functions.version = module.version;
#define BRIDGE_FILL(name, parameters, arguments)                                   \
  functions.C_##name = &pkcs11::Refuse;                                            \
  if (offsetof(CK_FUNCTION_LIST, C_##name) < size && module.C_##name != nullptr) { \
    functions.C_##name = module.C_##name;                                          \
  }
  QIXX_CK_FUNCTIONS(BRIDGE_FILL)
#undef BRIDGE_FILL
}

/// What keeps the library from being the module; empty when its functions were taken.
std::string TakeFunctions(const runtime::SharedLibrary& library, const std::string& path,
                          CK_FUNCTION_LIST& functions) {
  const auto obtain = library.FindSymbol<CK_C_GetFunctionList>("C_GetFunctionList");
  CK_FUNCTION_LIST* module = nullptr;
  if (obtain == &C_GetFunctionList) return "'" + path + "' is the bridge itself";
  if (obtain == nullptr || obtain(&module) != CKR_OK || module == nullptr) {
    return "'" + path + "' is no PKCS#11 module";
  }
  Fill(*module, functions);
  return {};
}

}  // namespace

Module LoadModule() {
  static CK_FUNCTION_LIST functions;
  runtime::InitProductIdentity();
  Settings settings = ReadSettings();
  std::string path;
  std::string fault;
  runtime::SharedLibrary library = Find(settings.module, path, fault);
  if (library.IsOpen()) fault = TakeFunctions(library, path, functions);
  if (!fault.empty()) {
    runtime::TraceWrite("Bridge - %s", fault.c_str());
    return {.functions = nullptr, .filter = {}, .fault = std::move(fault)};
  }
  static_cast<void>(library.Release());  // for the life of the process
  runtime::TraceWrite("Bridge - Loaded '%s'", path.c_str());
  return {&functions, std::move(settings.filter)};
}

}  // namespace qixx::bridge
