// A PKCS#11 module that passes every call on to another one and misbehaves on order.
//
// QIXX_TORTURE_MODULE names the module below, QIXX_TORTURE_ORDER a file of one line that is read
// anew with every call: "FUNCTION FIRST LAST DEED". The calls of FUNCTION from FIRST to LAST,
// counted from when the line was first seen, do the deed:
//
//   answer:NUMBER   do nothing and return this
//   throw:KIND      throw an "exception", "number" or "memory"
//   hang:NUMBER     wait so many milliseconds, then pass on
//   leave:          end the calling thread
//   lie:KIND        pass on, then spoil what comes out: "ones", "zero", "huge", "more"
//
// Each deed done adds a line to the file QIXX_TORTURE_DONE.
#include <dlfcn.h>
#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <type_traits>

#include "pkcs11/cryptoki.h"

namespace {

/// Below this a number that comes out is taken for a length of what the caller has room for.
constexpr CK_ULONG kHuge = 0x7FFFFFFF;

std::string Setting(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// The deed that this call has to do, empty for none.
std::string DeedFor(const std::string& function) {
  static std::mutex guard;
  static std::string seen;
  static unsigned long calls = 0;
  std::string text, ordered, deed;
  std::getline(std::ifstream(Setting("QIXX_TORTURE_ORDER")), text);
  unsigned long first = 0, last = 0;
  std::istringstream(text) >> ordered >> first >> last >> deed;
  if (ordered != function) return {};
  const std::lock_guard<std::mutex> lock(guard);
  if (seen != text) seen = text, calls = 0;
  ++calls;
  return calls >= first && calls <= last ? deed : std::string();
}

// --- lies ----------------------------------------------------------------------------------------

/// What a call was given and may have filled. Anything that is no output is left alone. A record
/// becomes texts without an end, or nothing at all; flags that hold everything.
template <typename Given>
void Spoil(Given given, std::string_view kind) {
  if constexpr (std::is_same_v<Given, CK_SLOT_INFO*> || std::is_same_v<Given, CK_TOKEN_INFO*>) {
    if (given == nullptr) return;
    std::memset(given, kind == "zero" ? 0 : kind == "ones" ? 0xFF : 'A', sizeof *given);
  }
}
void Spoil(CK_ULONG* output, std::string_view kind) {
  if (output == nullptr) return;
  if (kind == "ones") *output = ~CK_ULONG{0};
  if (kind == "zero") *output = 0;
  if (kind == "huge") *output = kHuge;
  if (kind == "more") ++*output;
}
void Spoil(CK_FUNCTION_LIST** output, std::string_view kind) {
  static CK_FUNCTION_LIST empty = {};
  *output = kind == "zero" ? nullptr : &empty;
}
/// The value as well, within the room that was given: a text without an end.
void Spoil(CK_ATTRIBUTE* output, std::string_view kind) {
  if (kind == "more" && output->pValue != nullptr && output->ulValueLen < kHuge)
    std::memset(output->pValue, 'A', output->ulValueLen);
  Spoil(&output->ulValueLen, kind);
}

// --- deeds ---------------------------------------------------------------------------------------

template <typename Honest, typename... Given>
CK_RV Perform(const char* function, const Honest& honest, const std::tuple<Given...>& given) {
  const std::string deed = DeedFor(function);
  if (deed.empty()) return honest();
  std::ofstream(Setting("QIXX_TORTURE_DONE"), std::ios::app) << function << " " << deed << "\n";
  const std::size_t colon = deed.find(':');
  const std::string verb = deed.substr(0, colon), detail = deed.substr(colon + 1);
  const unsigned long number = std::strtoul(detail.c_str(), nullptr, 0);
  if (verb == "answer") return number;
  if (detail == "number") throw 42;
  if (detail == "memory") throw std::bad_alloc();
  if (verb == "throw") throw std::runtime_error("hostile");
  if (verb == "leave") ::pthread_exit(nullptr);
  if (verb == "hang") std::this_thread::sleep_for(std::chrono::milliseconds(number));
  const CK_RV result = honest();
  if (verb == "lie") std::apply([&](const auto&... one) { (Spoil(one, detail), ...); }, given);
  return result;
}

/// The functions of the module below.
CK_FUNCTION_LIST* ListBelow() {
  static CK_FUNCTION_LIST* const list = [] {
    void* const module = ::dlopen(Setting("QIXX_TORTURE_MODULE").c_str(), RTLD_NOW | RTLD_LOCAL);
    CK_FUNCTION_LIST* found = nullptr;
    if (module == nullptr) ::abort();
    reinterpret_cast<CK_C_GetFunctionList>(::dlsym(module, "C_GetFunctionList"))(&found);
    return found;
  }();
  return list;
}

CK_FUNCTION_LIST functions = {};

}  // namespace

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR result) {
  functions.version = ListBelow()->version;
// NOLINTBEGIN(bugprone-macro-parentheses): the parameters have theirs
#define MISBEHAVING_SLOT(name, parameters, arguments)                                            \
  functions.C_##name = [] parameters {                                                           \
    return Perform(                                                                              \
        "C_" #name, [&] { return ListBelow()->C_##name arguments; }, std::make_tuple arguments); \
  };
  QIXX_CK_FUNCTIONS(MISBEHAVING_SLOT)
#undef MISBEHAVING_SLOT
  // NOLINTEND(bugprone-macro-parentheses)
  functions.C_GetFunctionList = C_GetFunctionList;
  *result = nullptr;
  return Perform(
      "C_GetFunctionList", [&]() -> CK_RV { return *result = &functions, CKR_OK; },
      std::make_tuple(result));
}

/// There is no descriptor, unless a lie makes one up that nobody opened.
QIXX_CK_EXPORT int QixEventDescriptor() {
  CK_ULONG descriptor = ~CK_ULONG{0};
  const CK_RV result = Perform(
      "QixEventDescriptor", [] { return CKR_OK; }, std::make_tuple(&descriptor));
  return result == CKR_OK ? static_cast<int>(descriptor) : static_cast<int>(result);
}
