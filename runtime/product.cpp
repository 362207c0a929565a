#include "runtime/product.h"

namespace qixx::runtime {
namespace {

constexpr ProductIdentity kNoIdentity;
constexpr ProductIdentity kIdentity{.prefix = "qix",
                                    .name = "Tessaly",
                                    .mainLibrary = "libqix.so",
                                    .pkcs11Library = "libqixp11.so",
                                    .mainProgram = "qix",
                                    .configFile = "qix.conf"};
constinit const ProductIdentity* identity = &kNoIdentity;

}  // namespace

void InitProductIdentity() {
  identity = &kIdentity;
}

const ProductIdentity& Product() {
  return *identity;
}

}  // namespace qixx::runtime
