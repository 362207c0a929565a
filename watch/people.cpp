#include "watch/people.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "runtime/text.h"
#include "watch/check.h"
#include "watch/list.h"
#include "watch/option_table.h"

namespace qixx::watch {
namespace {

constexpr std::size_t kHelpColumn = 26;
constexpr std::string_view kJsonWord = "--json";

void AppendRow(std::string& text, std::string usage, std::string_view help) {
  usage.insert(0, "  ");
  if (usage.size() < kHelpColumn - 1) {
    usage.resize(kHelpColumn, ' ');
  } else {
    usage.append(1, '\n').append(kHelpColumn, ' ');
  }
  text.append(usage).append(help).append(1, '\n');
}

/// As it is typed in a shell, which would eat the quotes of a value.
std::string UsageOf(const PositionalRow& row) {
  if (!row.head.ends_with('"')) return std::string(row.head).append(row.value);
  const std::string_view name = row.head.substr(0, row.head.size() - 1);
  return std::string(name).append("'\"").append(row.value).append("\"'");
}

bool Print(std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
         std::fflush(stdout) == 0;
}

int Refuse(std::string_view word) {
  std::string shown(word.substr(0, runtime::kMaxText));
  std::ranges::replace_if(
      shown, [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
  std::fprintf(stderr, "qixxwatch: unknown option '%s'; see qixxwatch --help\n", shown.c_str());
  return kExitUnable;
}

int Check(const std::vector<std::string>& files) {
  const CheckResult result = CheckConfiguration(files);
  std::fputs(result.errors.c_str(), stderr);
  return Print(result.output) ? result.exitCode : kExitUnable;
}

int List(const std::vector<std::string>& words, std::string_view version) {
  const bool asJson = !words.empty() && words.front() == kJsonWord;
  if (words.size() > (asJson ? 1U : 0U)) return Refuse(words[asJson ? 1 : 0]);
  const Listing listing = CollectListing();
  if (!Print(asJson ? JsonOf(listing, version) : TextOf(listing))) return kExitUnable;
  return listing.library.Answers() ? EXIT_SUCCESS : EXIT_FAILURE;
}

const PeopleRow* FindRow(std::string_view word) {
  const auto* const row = std::ranges::find_if(kPeopleOptions, [word](const PeopleRow& candidate) {
    return word == candidate.name || (!candidate.shortName.empty() && word == candidate.shortName);
  });
  return row == kPeopleOptions.end() ? nullptr : row;
}

}  // namespace

std::string HelpText() {
  std::string text =
      "Usage: qixxwatch [OPTIONS] [COMMAND | config SECTION[|EXTRA...]]\n"
      "Runs configured commands when a smart card is inserted or removed.\n"
      "\n"
      "Options, in this order, as a shell takes them (in qix.conf without '):\n";
  for (const PositionalRow& row : kPositionalOptions) {
    if (!row.help.empty()) AppendRow(text, UsageOf(row), row.help);
  }
  text.append("\nInstead of a command, with options in any order:\n");
  for (const KeywordRow& row : kKeywordOptions) {
    if (row.help.empty()) continue;
    AppendRow(text, std::string(row.name).append(1, ' ').append(row.value), row.help);
  }
  text.append("\nAs the first word, for people:\n");
  for (const PeopleRow& row : kPeopleOptions) {
    std::string usage(row.name);
    if (!row.value.empty()) usage.append(1, ' ').append(row.value);
    if (!row.shortName.empty()) usage.append(", ").append(row.shortName);
    AppendRow(text, std::move(usage), row.help);
  }
  text.append(
      "\nWithout a command the entry Watch of section Command is used. See qixxwatch(1).\n");
  return text;
}

std::optional<int> AnswerPeople(int argc, const char* const* argv, std::string_view version) {
  if (argc < 2 || argv[1] == nullptr) return std::nullopt;
  const std::string_view word(argv[1]);
  const PeopleRow* const row = FindRow(word);
  if (row == nullptr) {
    if (word.starts_with("--")) return Refuse(word);
    return std::nullopt;
  }
  const std::vector<std::string> words(argv + 2, argv + argc);
  if (row->name == "--check") return Check(words);
  if (row->name == "--list") return List(words, version);
  const std::string text =
      row->name == "--help" ? HelpText() : "qixxwatch " + std::string(version) + "\n";
  return Print(text) ? EXIT_SUCCESS : kExitUnable;
}

}  // namespace qixx::watch
