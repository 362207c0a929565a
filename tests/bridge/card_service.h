// A PC/SC service (pcscd) with two virtual readers, in a world of its own: a mount and a network
// namespace hold its socket and the readers' ports, so that it meets neither the machine's own
// service nor that of another test.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>

#include "tests/support/temporary_folder.h"

namespace qixx::testing {

class CardService {
 public:
  /// Moves this process, and what it starts, into a world of its own; once for each process.
  /// Returns why there can be no service here, an empty text when there can.
  [[nodiscard]] static std::string EnterWorld();

  CardService() = default;
  ~CardService();
  CardService(const CardService&) = delete;
  CardService& operator=(const CardService&) = delete;

  /// What the package of the virtual readers tells the service about them.
  [[nodiscard]] static std::string Readers();

  /// An empty text: no readers.
  void Start(const std::string& readers = Readers());
  void Stop(int signal = SIGTERM);

 private:
  const TemporaryFolder folder_;
  pid_t process_ = 0;
};

}  // namespace qixx::testing
