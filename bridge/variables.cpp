#include "bridge/variables.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "pkcs11/token_variables.h"

namespace qixx::bridge {
namespace {

using Variables = std::vector<pkcs11::TokenVariable>;

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

  /// CKR_OK without a text when the token has no store.
  CK_RV Load() {
    CK_RV result = opened_;
    if (result == CKR_OK) result = Find();
    return result == CKR_OK && object_ != CK_INVALID_HANDLE ? Read() : result;
  }
  /// What was loaded.
  [[nodiscard]] const std::vector<CK_BYTE>& Text() const { return text_; }
  /// After a Load; makes the store when there was none.
  CK_RV Save(const Variables& variables);

 private:
  CK_RV Find();
  CK_RV Read();

  const CK_FUNCTION_LIST& module_;
  CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE object_ = CK_INVALID_HANDLE;
  CK_RV opened_;
  std::vector<CK_BYTE> text_;
};

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

CK_RV Store::Read() {
  CK_ATTRIBUTE attribute = {CKA_VALUE, nullptr, 0};
  CK_RV result = module_.C_GetAttributeValue(session_, object_, &attribute, 1);
  if (result != CKR_OK) return result;
  if (attribute.ulValueLen > pkcs11::kMaxStoredBytes) return CKR_DATA_LEN_RANGE;
  text_.resize(attribute.ulValueLen);
  attribute.pValue = text_.data();
  result = module_.C_GetAttributeValue(session_, object_, &attribute, 1);
  text_.resize(std::min<std::size_t>(text_.size(), attribute.ulValueLen));
  return result;
}

CK_RV Store::Save(const Variables& variables) {
  const std::vector<CK_BYTE> stored = pkcs11::BuildTokenVariables(variables);
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
  if (const CK_RV result = store.Load(); result != CKR_OK) return {result, {}};
  const auto value = pkcs11::FindTokenVariable(store.Text(), name);
  if (!value) return {CKR_DATA_INVALID, {}};
  return {CKR_OK, std::string(*value)};
}

CK_RV WriteVariable(const CK_FUNCTION_LIST& module, CK_SLOT_ID slot, std::string_view name,
                    std::string_view value) {
  if (name.empty() || !pkcs11::IsStorable(name) || !pkcs11::IsStorable(value)) {
    return CKR_ARGUMENTS_BAD;
  }
  Store store(module, slot, CKF_RW_SESSION);
  // A store that cannot be read is not written over.
  if (const CK_RV result = store.Load(); result != CKR_OK) return result;
  Variables variables = pkcs11::ParseTokenVariables(store.Text());
  const auto found = std::ranges::find(variables, name, &pkcs11::TokenVariable::name);
  if (value.empty()) {
    if (found == variables.end()) return CKR_OK;
    variables.erase(found);
  } else if (found != variables.end()) {
    found->value = value;
  } else {
    variables.push_back({name, value});
  }
  return store.Save(variables);
}

}  // namespace qixx::bridge
