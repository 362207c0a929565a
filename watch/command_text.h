// A command's text, into which values of a card are put.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qixx::watch {

/// What may be more than text in a command.
struct CommandStructure {
  std::string marks;  ///< of each character that can be one, and of the card's that are one
  bool redirects = false;
  bool namesCall = false;  ///< the card names what is called
};

/// Keeps what the administrator meant: with the values in it the text has the same quotes as with a
/// single word in the place of each, no other option, redirection, '>' that stands alone or "..",
/// and the names of a called library and its function end where they did.
class CommandText {
 public:
  /// `maxLength` is how long the values may make the text.
  CommandText(std::string text, std::size_t maxLength);

  /// Puts a cleaned value in the place of a placeholder, whose letter case is ignored, wherever it
  /// stands. One whose value would make another text of it stays, and so do those behind the first
  /// for which there is no room.
  void Fill(std::string_view placeholder, std::string_view value);

  [[nodiscard]] const std::string& Text() const { return text_; }

 private:
  std::string text_;
  std::string origin_;  ///< the text with zero bytes in the place of what the card says
  std::size_t maxLength_;
  const CommandStructure structure_;
};

}  // namespace qixx::watch
