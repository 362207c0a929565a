// virtual_card PORT CERTIFICATE [DELAY]: a PIV card is in the reader of that port (35963, 35964)
// until the program is ended. The certificate is a file in DER; the card takes DELAY milliseconds
// for each command.
#include <csignal>
#include <cstdio>
#include <string>

#include "tests/bridge/piv_card.h"
#include "tests/support/temporary_folder.h"

int main(int count, char** arguments) {
  using namespace qixx::testing;
  sigset_t end;
  ::sigemptyset(&end);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaddset(&end, signal);
  ::sigprocmask(SIG_BLOCK, &end, nullptr);  // before the card's thread is there

  const std::string certificate = count > 2 ? TemporaryFolder::ReadFile(arguments[2]) : "";
  const InsertedCard card(count > 2 ? std::stoi(arguments[1]) : 0, certificate,
                          {.delay = count > 3 ? std::stoi(arguments[3]) : 0});
  if (certificate.empty() || !card.IsIn()) {
    std::fputs("usage: virtual_card PORT CERTIFICATE.der [DELAY], with a reader there\n", stderr);
    return 1;
  }
  int signal = 0;
  ::sigwait(&end, &signal);
  std::printf("%d commands, %d PINs, %d writes\n", card.Counters().commands.load(),
              card.Counters().pins.load(), card.Counters().writes.load());
  return 0;
}
