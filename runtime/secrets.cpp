#include "runtime/secrets.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

constexpr std::array<std::string_view, 5> kSecretKeys{"pin", "sopin", "puk", "pwd", "password"};

/// Masks the word or the quoted text that follows the word at `at`, any number of blanks between
/// them. Places are looked up in `line`, so that a value masked before hides no option.
void MaskValue(std::string_view line, std::size_t at, std::string& masked) {
  const std::size_t blank = std::min(line.find(' ', at), line.size());
  std::size_t begin = line.find_first_not_of(' ', blank);
  if (begin == std::string_view::npos) return;
  const bool quoted = line[begin] == '"';
  if (quoted) ++begin;
  const std::size_t end = std::min(line.find(quoted ? '"' : ' ', begin), line.size());
  std::fill(masked.begin() + static_cast<std::ptrdiff_t>(begin),
            masked.begin() + static_cast<std::ptrdiff_t>(end), '*');
}

void MaskKey(std::string_view line, std::string_view key, std::string& masked) {
  for (std::size_t dash = line.find('-'); dash != std::string_view::npos;
       dash = line.find('-', dash + 1)) {
    const std::string_view option = line.substr(dash + 1);
    if (option.size() > key.size() && StartsWithNoCase(option, key)) {
      MaskValue(line, dash + 1 + key.size(), masked);
    }
  }
}

}  // namespace

std::string MaskSecrets(std::string_view text) {
  std::string masked(text);
  for (const std::string_view key : kSecretKeys) MaskKey(text, key, masked);
  return masked;
}

MaskedText::MaskedText(std::string_view text) {
  if (TraceIsOn()) copy_ = MaskSecrets(text);
}

MaskedText::MaskedText(const char* text) : MaskedText(ViewOf(text)) {}

}  // namespace qixx::runtime
