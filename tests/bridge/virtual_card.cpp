// virtual_card PORT CERTIFICATE [DELAY]: a PIV card is in the reader of that port (35963, 35964)
// until the program is ended. The certificate is a file in DER; the card takes DELAY milliseconds
// for each command.
#include <cstdio>
#include <string>

#include "tests/bridge/piv_card.h"
#include "tests/support/temporary_folder.h"

int main(int count, char** arguments) {
  using namespace qixx::testing;
  const std::string certificate = count > 2 ? TemporaryFolder::ReadFile(arguments[2]) : "";
  const InsertedCard card(count > 2 ? std::stoi(arguments[1]) : 0, certificate,
                          count > 3 ? std::stoi(arguments[3]) : 0);
  if (certificate.empty() || !card.IsIn()) {
    std::fputs("usage: virtual_card PORT CERTIFICATE.der [DELAY], with a reader there\n", stderr);
    return 1;
  }
  for (;;) ::pause();
}
