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

/// Parts are searched for in no longer line.
constexpr std::size_t kMaxSearched = 4 * kMaxLine;

constexpr char kQuote = '"';

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

/// Walks over the arguments of a line; one in quotes begins behind a blank, or with the line.
class QuoteWalk {
 public:
  explicit QuoteWalk(std::string_view line) : line_(line) {}

  /// Whether a place, each behind the one before, is inside an argument in quotes.
  bool IsQuoted(std::size_t place) {
    while (at_ < place) {
      if (line_[at_] == kQuote) {
        if (close_ <= at_) close_ = std::min(line_.find(kQuote, at_ + 1), line_.size());
        if (close_ >= place) return true;
        at_ = close_ + 1;
      } else {
        at_ = IsBlank(line_[at_]) ? at_ + 1 : line_.find_first_of(" \t", at_);
      }
    }
    return false;
  }

 private:
  std::string_view line_;
  std::size_t at_ = 0;
  std::size_t close_ = 0;  ///< the end of the argument in quotes that begins at at_
};

/// Masks the value of the option whose key ends at `at`. Places are looked up in `line`, so that a
/// value masked before hides no option. What may belong to a value or not is masked.
void MaskValue(std::string_view line, std::size_t at, bool quotedOption, std::string& masked) {
  std::size_t begin = std::min(line.find_first_of(" \t=\"", at), line.size());
  if (begin == line.size()) return;
  // Quotes around the key alone say nothing of the value.
  const bool quotedKey = quotedOption && line[begin] == kQuote;
  if (quotedKey || line[begin] == '=') ++begin;
  for (; begin < line.size() && (IsBlank(line[begin]) || line[begin] == '='); ++begin) {
    if (line[begin] == '=') masked[begin] = '*';
  }
  bool quoted = quotedOption && !quotedKey;
  // Also where this quote closes the option's argument: it was meant to hold the value.
  if (begin < line.size() && line[begin] == kQuote) {
    quoted = true;
    ++begin;
  }
  const std::size_t length = std::min(line.find(quoted ? kQuote : ' ', begin), line.size()) - begin;
  masked.replace(begin, length, length, '*');
}

void MaskKey(std::string_view line, std::string_view key, std::string& masked) {
  QuoteWalk quotes(line);
  for (std::size_t dash = line.find('-'); dash != std::string_view::npos;
       dash = line.find('-', dash + 1)) {
    const std::string_view option = line.substr(dash + 1);
    if (option.size() > key.size() && StartsWithNoCase(option, key)) {
      MaskValue(line, dash + 1 + key.size(), quotes.IsQuoted(dash), masked);
    }
  }
}

}  // namespace

std::string MaskSecrets(std::string_view text) {
  std::string masked(text);
  for (const std::string_view key : kSecretKeys) MaskKey(text, key, masked);
  return masked;
}

MaskedLine::MaskedLine(std::string_view line)
    : line_(line), masked_(MaskSecrets(line)), hasSecrets_(masked_ != line_) {}

std::string MaskedLine::Part(std::string_view part) const {
  if (!Hides(part)) return std::string(part);
  const std::size_t place = line_.size() > kMaxSearched ? std::string::npos : line_.find(part);
  if (place == std::string::npos) return std::string(part.size(), '*');
  return masked_.substr(place, part.size());
}

bool MaskedLine::Hides(std::string_view part) const {
  return hasSecrets_ && (line_.size() > kMaxSearched || masked_.find(part) == std::string::npos);
}

MaskedText::MaskedText(std::string_view text) {
  if (TraceIsOn()) copy_ = MaskSecrets(text);
}

}  // namespace qixx::runtime
