#include "pkcs11/variable_template.h"

#include <cstddef>
#include <string_view>

#include "runtime/product.h"

namespace qixx::pkcs11 {
namespace {

constexpr std::size_t kMaxApplicationName = 31;

std::string ApplicationName() {
  const std::string_view name = runtime::Product().name;
  return std::string(name.substr(0, kMaxApplicationName));
}

}  // namespace

VariableTemplate::VariableTemplate(bool isPrivate)
    : isPrivate_(isPrivate ? CK_TRUE : CK_FALSE),
      application_(ApplicationName()),
      attributes_{{{CKA_CLASS, &class_, sizeof class_},
                   {CKA_TOKEN, &onToken_, sizeof onToken_},
                   {CKA_PRIVATE, &isPrivate_, sizeof isPrivate_},
                   {CKA_APPLICATION, application_.data(), application_.size()},
                   {CKA_LABEL, application_.data(), 0},
                   {CKA_VALUE, nullptr, 0}}} {}

std::span<CK_ATTRIBUTE> VariableTemplate::ToCreate(std::span<const CK_BYTE> value) {
  attributes_[5] = {CKA_VALUE, const_cast<CK_BYTE*>(value.data()), value.size()};
  return attributes_;
}

}  // namespace qixx::pkcs11
