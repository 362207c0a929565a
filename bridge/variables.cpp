#include "bridge/variables.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "runtime/files.h"
#include "runtime/text.h"

namespace qixx::bridge {
namespace {

using Variables = std::vector<std::pair<std::string, std::string>>;

constexpr CK_ULONG kMaxStore = 1024 * 1024;

/// A session, closed with the scope.
class Session {
 public:
  Session(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot, CK_FLAGS flags)
      : module_(module),
        result_(
            module.C_OpenSession(slot, CKF_SERIAL_SESSION | flags, nullptr, nullptr, &handle_)) {}
  ~Session() {
    if (result_ == CKR_OK) module_.C_CloseSession(handle_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  [[nodiscard]] CK_RV Result() const { return result_; }
  [[nodiscard]] CK_SESSION_HANDLE Handle() const { return handle_; }

 private:
  const CK_FUNCTION_LIST& module_;
  CK_SESSION_HANDLE handle_ = CK_INVALID_HANDLE;
  CK_RV result_;
};

/// The store's attributes: five to find it by, and its value.
struct StoreTemplate {
  CK_OBJECT_CLASS objectClass = CKO_DATA;
  CK_BBOOL onToken = CK_TRUE;
  CK_BBOOL isPrivate = CK_FALSE;
  std::string application = Product().name;

  std::array<CK_ATTRIBUTE, 6> Attributes(std::string& value) {
    return {{{CKA_CLASS, &objectClass, sizeof objectClass},
             {CKA_TOKEN, &onToken, sizeof onToken},
             {CKA_PRIVATE, &isPrivate, sizeof isPrivate},
             {CKA_APPLICATION, application.data(), application.size()},
             {CKA_LABEL, application.data(), 0},
             {CKA_VALUE, value.data(), value.size()}}};
  }
};
constexpr CK_ULONG kToFind = 5;

/// CKR_OK with CK_INVALID_HANDLE when the token has no store.
CK_RV FindStore(const CK_FUNCTION_LIST& module, CK_SESSION_HANDLE session,
                CK_OBJECT_HANDLE& store) {
  StoreTemplate wanted;
  std::string none;
  auto attributes = wanted.Attributes(none);
  store = CK_INVALID_HANDLE;
  CK_RV result = module.C_FindObjectsInit(session, attributes.data(), kToFind);
  if (result != CKR_OK) return result;
  CK_ULONG count = 0;
  result = module.C_FindObjects(session, &store, 1, &count);
  if (result != CKR_OK || count != 1) store = CK_INVALID_HANDLE;
  module.C_FindObjectsFinal(session);
  return result;
}

CK_RV ReadStore(const CK_FUNCTION_LIST& module, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE store,
                std::string& bytes) {
  CK_ATTRIBUTE attribute = {CKA_VALUE, nullptr, 0};
  CK_RV result = module.C_GetAttributeValue(session, store, &attribute, 1);
  if (result != CKR_OK) return result;
  if (attribute.ulValueLen > kMaxStore) return CKR_DATA_LEN_RANGE;
  bytes.resize(attribute.ulValueLen);
  attribute.pValue = bytes.data();
  result = module.C_GetAttributeValue(session, store, &attribute, 1);
  bytes.resize(std::min<std::size_t>(bytes.size(), attribute.ulValueLen));
  return result;
}

std::string TakeText(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('\0'), rest.size());
  const std::string_view text = DropTrailingBlanks(rest.substr(0, end));
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return std::string(text);
}

Variables Decode(std::string_view bytes) {
  Variables variables;
  if (bytes.size() <= 2 || bytes[0] != '\0') return variables;
  std::string_view rest = bytes.substr(1);
  while (rest.size() > 3 && rest[0] != '\0') {
    std::string name = TakeText(rest);
    variables.emplace_back(std::move(name), TakeText(rest));
  }
  return variables;
}

/// One blank behind each text: a pair without any may be too short to be read again.
std::string Encode(const Variables& variables) {
  std::string bytes(1, '\0');
  for (const auto& [name, value] : variables) {
    for (const std::string& text : {name, value}) bytes += text + std::string(" \0", 2);
  }
  return bytes;
}

auto FindIn(Variables& variables, std::string_view name) {
  return std::find_if(variables.begin(), variables.end(),
                      [name](const auto& variable) { return variable.first == name; });
}

bool IsStorable(std::string_view text) {
  return text.find('\0') == std::string_view::npos && DropTrailingBlanks(text) == text;
}

CK_RV Load(const CK_FUNCTION_LIST& module, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE& store,
           Variables& variables) {
  std::string bytes;
  CK_RV result = FindStore(module, session, store);
  if (result != CKR_OK || store == CK_INVALID_HANDLE) return result;
  result = ReadStore(module, session, store, bytes);
  variables = Decode(bytes);
  return result;
}

}  // namespace

CK_RV ReadVariable(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot, std::string_view name,
                   std::string& value) {
  const Session session(module, slot, 0);
  if (session.Result() != CKR_OK) return session.Result();
  CK_OBJECT_HANDLE store = CK_INVALID_HANDLE;
  Variables variables;
  const CK_RV result = Load(module, session.Handle(), store, variables);
  if (result != CKR_OK) return result;
  const auto found = FindIn(variables, name);
  if (found == variables.end()) return CKR_DATA_INVALID;
  value = found->second;
  return CKR_OK;
}

CK_RV WriteVariable(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot, std::string_view name,
                    std::string_view value) {
  if (name.empty() || !IsStorable(name) || !IsStorable(value)) return CKR_ARGUMENTS_BAD;
  const Session session(module, slot, CKF_RW_SESSION);
  if (session.Result() != CKR_OK) return session.Result();
  CK_OBJECT_HANDLE store = CK_INVALID_HANDLE;
  Variables variables;
  // A store that cannot be read is not written over.
  const CK_RV result = Load(module, session.Handle(), store, variables);
  if (result != CKR_OK) return result;

  const auto found = FindIn(variables, name);
  if (value.empty()) {
    if (found == variables.end()) return CKR_OK;
    variables.erase(found);
  } else if (found != variables.end()) {
    found->second = value;
  } else {
    variables.emplace_back(name, value);
  }
  std::string bytes = Encode(variables);
  StoreTemplate written;
  auto attributes = written.Attributes(bytes);
  if (store == CK_INVALID_HANDLE) {
    return module.C_CreateObject(session.Handle(), attributes.data(), attributes.size(), &store);
  }
  return module.C_SetAttributeValue(session.Handle(), store, &attributes[kToFind], 1);
}

}  // namespace qixx::bridge
