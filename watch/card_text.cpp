#include "watch/card_text.h"

#include <cstddef>

namespace qixx::watch {

std::string CleanCardText(std::string text) {
  // A placeholder in the text may come to nothing, so its '%' is no neighbour to rely on. The index
  // before the first wraps.
  const auto isBreak = [&text](std::size_t index) {
    return index >= text.size() || text[index] == ' ' || text[index] == '%';
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool control = byte < 0x20 || byte == 0x7F;
    const bool redirection = byte == '>' && isBreak(i - 1) && isBreak(i + 1);
    if (control || byte == '"' || redirection) text[i] = '_';
  }
  return text;
}

}  // namespace qixx::watch
