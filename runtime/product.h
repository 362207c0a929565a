// The names of the product.
#pragma once

#include <string_view>

namespace qixx::runtime {

/// All names are empty until InitProductIdentity has run. They are literals, so their data() ends
/// in a zero byte.
struct ProductIdentity {
  // NOLINTBEGIN(readability-redundant-string-init): a view without "" would have no zero byte
  std::string_view prefix = "";         ///< three letters that every other name is formed from
  std::string_view name = "";           ///< the suite's name, the application name of token data
  std::string_view mainLibrary = "";    ///< file name of the main library
  std::string_view pkcs11Library = "";  ///< file name of the PKCS#11 library
  std::string_view mainProgram = "";    ///< name of the main program
  std::string_view configFile = "";     ///< file name of the configuration
  // NOLINTEND(readability-redundant-string-init)
};

/// To be called once at start, before there are other threads.
void InitProductIdentity();
[[nodiscard]] const ProductIdentity& Product();

}  // namespace qixx::runtime
