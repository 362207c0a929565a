#include "bridge/variables.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "pkcs11/token_variables.h"
#include "pkcs11/variable_template.h"

namespace qixx::bridge {
namespace {

using Variables = std::vector<pkcs11::TokenVariable>;
using StoredText = std::vector<std::uint8_t>;

auto FindIn(std::vector<pkcs11::TokenVariable>& variables, std::string_view name) {
  return std::find_if(variables.begin(), variables.end(),
                      [name](const auto& variable) { return variable.name == name; });
}

/// The store of a token as it is found, and the session in which it was found.
class Store {
 public:
  Store(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot, CK_FLAGS flags)
      : module_(module),
        opened_(
            module.C_OpenSession(slot, CKF_SERIAL_SESSION | flags, nullptr, nullptr, &session_)) {}
  ~Store() {
    if (opened_ == CKR_OK) module_.C_CloseSession(session_);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// CKR_OK without variables when the token has no store.
  CK_RV Load(Variables& variables);
  /// After a Load; makes the store when there was none.
  CK_RV Save(const Variables& variables);

 private:
  CK_RV Find();
  CK_RV Read(StoredText& stored);

  const CK_FUNCTION_LIST& module_;
  CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE object_ = CK_INVALID_HANDLE;
  CK_RV opened_;
};

CK_RV Store::Load(Variables& variables) {
  CK_RV result = opened_;
  if (result == CKR_OK) result = Find();
  if (result != CKR_OK || object_ == CK_INVALID_HANDLE) return result;
  StoredText stored;
  result = Read(stored);
  if (result == CKR_OK) variables = pkcs11::ParseTokenVariables(stored);
  return result;
}

CK_RV Store::Find() {
  pkcs11::VariableTemplate wanted(false);
  const std::span<CK_ATTRIBUTE> attributes = wanted.ToFind();
  CK_RV result = module_.C_FindObjectsInit(session_, attributes.data(), attributes.size());
  if (result != CKR_OK) return result;
  CK_ULONG count = 0;
  result = module_.C_FindObjects(session_, &object_, 1, &count);
  if (result != CKR_OK || count != 1) object_ = CK_INVALID_HANDLE;
  module_.C_FindObjectsFinal(session_);
  return result;
}

CK_RV Store::Read(StoredText& stored) {
  CK_ATTRIBUTE attribute = {CKA_VALUE, nullptr, 0};
  CK_RV result = module_.C_GetAttributeValue(session_, object_, &attribute, 1);
  if (result != CKR_OK) return result;
  if (attribute.ulValueLen > pkcs11::kMaxStoredBytes) return CKR_DATA_LEN_RANGE;
  stored.resize(attribute.ulValueLen);
  attribute.pValue = stored.data();
  result = module_.C_GetAttributeValue(session_, object_, &attribute, 1);
  stored.resize(std::min<std::size_t>(stored.size(), attribute.ulValueLen));
  return result;
}

CK_RV Store::Save(const Variables& variables) {
  const StoredText stored = pkcs11::BuildTokenVariables(variables);
  pkcs11::VariableTemplate written(false);
  const std::span<CK_ATTRIBUTE> attributes = written.ToCreate(stored);
  if (object_ == CK_INVALID_HANDLE) {
    return module_.C_CreateObject(session_, attributes.data(), attributes.size(), &object_);
  }
  return module_.C_SetAttributeValue(session_, object_, &attributes.back(), 1);
}

}  // namespace

VariableAnswer ReadVariable(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot,
                            std::string_view name) {
  Store store(module, slot, 0);
  Variables variables;
  if (const CK_RV result = store.Load(variables); result != CKR_OK) return {result, {}};
  const auto found = FindIn(variables, name);
  if (found == variables.end()) return {CKR_DATA_INVALID, {}};
  return {CKR_OK, std::move(found->value)};
}

CK_RV WriteVariable(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot, std::string_view name,
                    std::string_view value) {
  if (name.empty() || !pkcs11::IsStorable(name) || !pkcs11::IsStorable(value))
    return CKR_ARGUMENTS_BAD;
  Store store(module, slot, CKF_RW_SESSION);
  Variables variables;
  // A store that cannot be read is not written over.
  if (const CK_RV result = store.Load(variables); result != CKR_OK) return result;
  const auto found = FindIn(variables, name);
  if (value.empty()) {
    if (found == variables.end()) return CKR_OK;
    variables.erase(found);
  } else if (found != variables.end()) {
    found->value = value;
  } else {
    variables.push_back({std::string(name), std::string(value)});
  }
  return store.Save(variables);
}

}  // namespace qixx::bridge
