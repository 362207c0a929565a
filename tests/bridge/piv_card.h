// A PIV card in software (NIST SP 800-73-4), enough of it for a middleware to bind it and to read
// the authentication certificate, and the plug that puts it into a virtual reader of vpcd.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace qixx::testing {

/// The first reader's port; each further reader has the next one.
inline constexpr int kFirstReaderPort = 35963;

/// What was asked of a card since it was made.
struct CardCounters {
  std::atomic<int> resets = 0;  ///< the reader has powered the card on
  std::atomic<int> commands = 0;
  std::atomic<int> pins = 0;    ///< commands that carry a PIN or a PUK, or try one out
  std::atomic<int> writes = 0;  ///< commands that would change the card or use a key
  std::atomic<int> certificateReads = 0;
  std::atomic<bool> gone = false;  ///< the reader has let go of the card
};

/// Answers commands. Without certificate it knows no application: a card that no middleware knows.
class PivCard {
 public:
  PivCard(std::string certificate, CardCounters& counters)
      : certificate_(std::move(certificate)), counters_(counters) {}
  [[nodiscard]] std::string Answer(std::string_view command);
  [[nodiscard]] static std::string AnswerToReset();

 private:
  std::string Select(std::string_view name);
  std::string GetData(std::string_view tag);
  std::string Hand(std::string data, std::size_t expected);

  std::string certificate_;
  CardCounters& counters_;
  std::string rest_;  ///< of an answer that is fetched piece by piece
};

/// A card in a reader for as long as the object lives.
class InsertedCard {
 public:
  struct Options {
    /// How long the card thinks about each command, in milliseconds.
    int delay = 0;
    /// Pulled by itself as soon as its certificate is being read.
    bool pulledWhileRead = false;
  };
  /// The port's reader; `certificate` is DER.
  InsertedCard(int port, const std::string& certificate) : InsertedCard(port, certificate, {}) {}
  InsertedCard(int port, const std::string& certificate, Options options);
  ~InsertedCard();
  InsertedCard(const InsertedCard&) = delete;
  InsertedCard& operator=(const InsertedCard&) = delete;

  /// False when there is no such reader.
  [[nodiscard]] bool IsIn() const { return socket_ >= 0; }
  [[nodiscard]] const CardCounters& Counters() const { return counters_; }

 private:
  void Serve();

  CardCounters counters_;
  PivCard card_;
  Options options_;
  int socket_;
  std::thread thread_;
};

}  // namespace qixx::testing
