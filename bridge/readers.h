// The card readers as PC/SC sees them: which there are, and whether a card is in.
//
// PC/SC is asked directly, beside whatever the module does, because it tells of a card at once and
// at the cost of three messages, while a module tells when it has read the card. Without the PC/SC
// library, and while its service is away, there are no readers here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/pcsc.h"
#include "pkcs11/cryptoki.h"

namespace qixx::bridge {

/// A reader's name as a slot description holds it: cut to 64 bytes, without padding.
[[nodiscard]] std::string_view DescriptionText(const CK_SLOT_INFO& info);

/// Not for several threads at a time.
class Readers {
 public:
  struct State {
    bool present = false;
    /// Grows with each insertion and removal, when the reader comes back, and when the connection
    /// was made again: a card that may have been changed unseen counts as another one.
    std::uint64_t changes = 0;

    bool operator==(const State&) const = default;
  };
  struct Reader {
    std::string name;           ///< cut as a slot description is
    std::uint64_t arrival = 0;  ///< another one each time that it is listed anew
    State state;
  };

  /// Asks for the state of all readers. True when there are others than at the last poll, also when
  /// the service was restarted: it has forgotten all cards. Allocates nothing while the readers
  /// stay. May throw std::bad_alloc; the next poll makes up for it. A connection that was lost or
  /// refused is made again, but not at each poll.
  bool Poll();
  /// The reader went, though no poll saw it: what the next one finds there is another card.
  void Forget(std::string_view wholeName);
  /// Ends the connection; the next poll connects at once.
  void Close();
  /// Instead of Close in a forked child: the connection is the parent's.
  void Abandon();

  /// Whether the last poll told the state of all readers.
  [[nodiscard]] bool IsComplete() const { return connection_.IsOpen() && !current_.empty(); }
  [[nodiscard]] std::span<const Reader> All() const { return readers_; }
  /// How many have the name: cut short, two may have one.
  [[nodiscard]] std::size_t Count(std::string_view name) const;
  /// Null when no reader has the name, or more than one has it.
  [[nodiscard]] const Reader* Find(std::string_view name) const;

 private:
  bool Connect();
  bool ReadStates();
  void TakeNames(std::string_view names);

  PcscConnection connection_;
  std::int64_t connectAfter_ = 0;  ///< not before then, in milliseconds
  std::string current_;            ///< the names of the last poll, as ReadNames gives them
  std::vector<Reader> readers_;
  std::uint64_t arrivals_ = 0;
};

}  // namespace qixx::bridge
