#include "watch/check_report.h"

#include <numeric>
#include <optional>
#include <tuple>

#include "runtime/secrets.h"
#include "runtime/text.h"
#include "watch/card_text.h"

namespace qixx::watch {
namespace {

constexpr std::size_t kMaxShown = 160;
/// Longer names are compared up to here.
constexpr std::size_t kMaxCompared = 64;

/// What a terminal does not show, or shows as another text than there is.
bool IsHarmful(char32_t character) {
  return Misleads(character) || (character >= 0x200B && character <= 0x200F) ||
         character == 0x2028 || character == 0x2029 || (character >= 0x2060 && character <= 0x206F);
}

/// How many characters have to be changed, put in, left out, or swapped with their neighbour. Where
/// the lengths tell that it is `limit` or more, that is not counted.
std::size_t Distance(std::string_view a, std::string_view b, std::size_t limit) {
  a = a.substr(0, kMaxCompared);
  b = b.substr(0, kMaxCompared);
  if (std::max(a.size(), b.size()) - std::min(a.size(), b.size()) >= limit) return limit;
  std::vector<std::vector<std::size_t>> rows(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  std::iota(rows[0].begin(), rows[0].end(), std::size_t{0});
  const auto same = [a, b](std::size_t i, std::size_t j) {
    return runtime::FoldCase(a[i - 1]) == runtime::FoldCase(b[j - 1]);
  };
  for (std::size_t i = 1; i <= a.size(); ++i) {
    rows[i][0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = rows[i - 1][j - 1] + (same(i, j) ? 0 : 1);
      rows[i][j] = std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, changed});
      const bool swapped = i > 1 && j > 1 && same(i - 1, j) && same(i, j - 1);
      if (swapped) rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
    }
  }
  return rows.back().back();
}

}  // namespace

void Mistakes::Add(const Place& place, std::string_view wrong, std::string_view meant) {
  ++count_;
  if (told_.size() >= kMaxTold) return;
  const auto known = std::ranges::find(files_, place.file);
  const auto file = static_cast<std::size_t>(known - files_.begin());
  if (known == files_.end()) files_.push_back(place.file);
  std::string text(wrong);
  if (!meant.empty()) text.append("; ").append(meant);
  told_.push_back({file, place.line, std::move(text)});
}

void Mistakes::Add(const Mistakes& others) {
  for (const Mistake& mistake : others.told_) {
    Add({others.files_[mistake.file], mistake.line}, mistake.text);
  }
  count_ += others.count_ - others.told_.size();
}

std::string Mistakes::Text() const {
  std::vector<Mistake> sorted = told_;
  const auto key = [](const Mistake& mistake) { return std::tie(mistake.file, mistake.line); };
  std::ranges::stable_sort(sorted, {}, key);
  std::string text;
  std::string last;
  for (const Mistake& mistake : sorted) {
    std::string line = Shown(files_[mistake.file]);
    line.append(1, ':').append(std::to_string(mistake.line)).append(": ").append(mistake.text);
    if (line == last) continue;
    last = line;
    text.append(line).append(1, '\n');
  }
  if (count_ > told_.size()) {
    text.append("And ").append(std::to_string(count_ - told_.size())).append(" more.\n");
  }
  return text;
}

std::string Shown(std::string_view text) {
  const std::string masked = runtime::MaskSecrets(text.substr(0, 4 * kMaxShown));
  std::string shown;
  for (std::string_view left = masked; !left.empty();) {
    if (shown.size() >= kMaxShown) return shown + "...";
    const std::optional<char32_t> character = runtime::TakeUtf8(left);
    if (!character || IsHarmful(*character)) {
      shown += '?';
    } else {
      runtime::AppendUtf8(shown, *character);
    }
  }
  return shown;
}

std::string Quoted(std::string_view text) {
  return "'" + Shown(text) + "'";
}

bool Contains(std::span<const std::string_view> names, std::string_view name) {
  return std::ranges::any_of(
      names, [name](std::string_view other) { return runtime::EqualsNoCase(name, other); });
}

std::string_view NearestName(std::string_view name, std::span<const std::string_view> candidates) {
  std::string_view nearest;
  // A quarter of the name may differ; of a short one a single character.
  std::size_t limit = std::max<std::size_t>(std::min(name.size(), kMaxCompared) / 4, 1) + 1;
  for (const std::string_view candidate : candidates) {
    const std::size_t distance = Distance(name, candidate, limit);
    if (distance >= limit) continue;
    limit = distance;
    nearest = candidate;
  }
  return nearest;
}

std::string MeantName(std::string_view name, std::span<const std::string_view> candidates,
                      std::string_view otherwise) {
  const std::string_view nearest = NearestName(name, candidates);
  return nearest.empty() ? std::string(otherwise) : Quoted(nearest) + " is meant";
}

}  // namespace qixx::watch
