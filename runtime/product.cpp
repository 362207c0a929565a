#include "runtime/product.h"

namespace qixx::runtime {
namespace {

constinit ProductIdentity identity;

}  // namespace

void InitProductIdentity() {
  identity = {.prefix = "qix",
              .name = "Tessaly",
              .mainLibrary = "libqix.so",
              .pkcs11Library = "libqixp11.so",
              .mainProgram = "qix",
              .configFile = "qix.conf"};
}

const ProductIdentity& Product() {
  return identity;
}

}  // namespace qixx::runtime
