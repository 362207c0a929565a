#include "pkcs11/result_names.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace qixx::pkcs11 {
namespace {

struct NamedResult {
  CK_RV result;
  const char* name;
};

/// What functions answer that list readers, cards and objects, or that begin and end it all.
constexpr NamedResult kNamedResults[] = {
    {0x000, "CKR_OK"},
    {0x001, "CKR_CANCEL"},
    {0x002, "CKR_HOST_MEMORY"},
    {0x003, "CKR_SLOT_ID_INVALID"},
    {0x005, "CKR_GENERAL_ERROR"},
    {0x006, "CKR_FUNCTION_FAILED"},
    {0x007, "CKR_ARGUMENTS_BAD"},
    {0x008, "CKR_NO_EVENT"},
    {0x009, "CKR_NEED_TO_CREATE_THREADS"},
    {0x00A, "CKR_CANT_LOCK"},
    {0x011, "CKR_ATTRIBUTE_SENSITIVE"},
    {0x012, "CKR_ATTRIBUTE_TYPE_INVALID"},
    {0x013, "CKR_ATTRIBUTE_VALUE_INVALID"},
    {0x030, "CKR_DEVICE_ERROR"},
    {0x031, "CKR_DEVICE_MEMORY"},
    {0x032, "CKR_DEVICE_REMOVED"},
    {0x050, "CKR_FUNCTION_CANCELED"},
    {0x054, "CKR_FUNCTION_NOT_SUPPORTED"},
    {0x082, "CKR_OBJECT_HANDLE_INVALID"},
    {0x090, "CKR_OPERATION_ACTIVE"},
    {0x091, "CKR_OPERATION_NOT_INITIALIZED"},
    {0x0B1, "CKR_SESSION_COUNT"},
    {0x0B3, "CKR_SESSION_HANDLE_INVALID"},
    {0x0B5, "CKR_SESSION_READ_ONLY"},
    {0x0B8, "CKR_SESSION_READ_WRITE_SO_EXISTS"},
    {0x0E0, "CKR_TOKEN_NOT_PRESENT"},
    {0x0E1, "CKR_TOKEN_NOT_RECOGNIZED"},
    {0x0E2, "CKR_TOKEN_WRITE_PROTECTED"},
    {0x101, "CKR_USER_NOT_LOGGED_IN"},
    {0x150, "CKR_BUFFER_TOO_SMALL"},
    {0x190, "CKR_CRYPTOKI_NOT_INITIALIZED"},
    {0x191, "CKR_CRYPTOKI_ALREADY_INITIALIZED"},
    {0x1A0, "CKR_MUTEX_BAD"},
};

}  // namespace

std::string ResultName(CK_RV result) {
  const auto* const named = std::ranges::find(kNamedResults, result, &NamedResult::result);
  if (named != std::end(kNamedResults)) return named->name;
  char number[32];
  std::snprintf(number, sizeof number, "0x%lX", static_cast<unsigned long>(result));
  return number;
}

}  // namespace qixx::pkcs11
