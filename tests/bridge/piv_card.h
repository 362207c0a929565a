// A PIV card in software (NIST SP 800-73-4), enough of it for a middleware to bind it and to read
// the authentication certificate, in a virtual reader of vpcd for as long as the object lives.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <thread>

namespace qixx::testing {

/// The first reader's port; each further reader has the next one.
inline constexpr int kFirstReaderPort = 35963;

/// What was asked of a card since it was made.
struct CardCounters {
  std::atomic<int> commands = 0;
  std::atomic<int> pins = 0;    ///< commands that carry a PIN or a PUK
  std::atomic<int> writes = 0;  ///< commands that would change the card or use a key
  std::atomic<int> certificateReads = 0;
  std::atomic<bool> gone = false;  ///< the reader has let go of the card
};

struct CardHabits {
  int delay = 0;                 ///< how long it thinks about each command, in milliseconds
  bool pulledWhileRead = false;  ///< pulled by itself as soon as its certificate is being read
};

class InsertedCard {
 public:
  /// The port's reader. `certificate` is DER; without, the card knows no application.
  InsertedCard(int port, std::string certificate, CardHabits habits = {});
  ~InsertedCard();
  InsertedCard(const InsertedCard&) = delete;
  InsertedCard& operator=(const InsertedCard&) = delete;

  /// False when there is no such reader.
  [[nodiscard]] bool IsIn() const { return socket_ >= 0; }
  [[nodiscard]] const CardCounters& Counters() const { return counters_; }

 private:
  void Serve();
  std::string Answer(std::string_view command);
  std::string GetData(std::string_view tag);
  std::string Hand(std::string data);

  const std::string certificate_;
  const CardHabits habits_;
  CardCounters counters_;
  std::string rest_;  ///< of an answer that is fetched piece by piece
  int socket_;
  std::thread thread_;
};

}  // namespace qixx::testing
