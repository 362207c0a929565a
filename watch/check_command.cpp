#include "watch/check_command.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <vector>

#include "runtime/loader.h"
#include "runtime/process.h"
#include "runtime/text.h"
#include "watch/check_paths.h"
#include "watch/command.h"
#include "watch/extern_command.h"
#include "watch/parallel.h"
#include "watch/set_command.h"

namespace qixx::watch {
namespace {

constexpr std::array<std::string_view, 10> kShellWords = {"|",  "||", "&",  "&&",   ";",
                                                          ">>", "<",  "2>", "2>&1", "&>"};

/// "-c", "-ec" and their like: what stands behind them is a script to shells, su, python and many
/// others, also when another program starts them.
bool TakesScript(std::string_view word) {
  return word.size() >= 2 && word.front() == '-' && word.back() == 'c' &&
         std::ranges::all_of(word.substr(1), [](unsigned char c) { return std::isalpha(c) != 0; });
}

class CommandCheck {
 public:
  CommandCheck(const Report& report, const CommandUse& use) : report_(report), use_(use) {}

  void Check(std::string_view text) {
    const CommandParts parts = SplitCommand(use_.kind, text);
    switch (parts.kind) {
      case CommandKind::kProgram:
        return CheckLine("", parts.text);
      case CommandKind::kApplication:
        return CheckApplication(parts.text);
      case CommandKind::kParallel:
        return CheckParallel(parts.text);
      case CommandKind::kSet:
        return CheckSet(parts.text);
      case CommandKind::kDocument:
        return CheckDocument(parts.text);
      case CommandKind::kLoad:
        return CheckLoad(parts.text);
      case CommandKind::kExtern:
        return CheckExtern(parts.text);
      case CommandKind::kNothing:
      case CommandKind::kFailure:
        return;
    }
  }

  /// A program and its arguments; without a program the first argument is it.
  void CheckLine(std::string_view program, std::string_view arguments) {
    const std::vector<std::string> words = runtime::SplitArguments(program, arguments);
    if (words.empty()) return Add("there is no program", "its whole path is meant");
    CheckProgramPath(report_, words.front());
    CheckQuotes(program.empty(), arguments);
    CheckWords(words);
  }

 private:
  void Add(std::string_view wrong, std::string_view meant) { report_.Add(wrong, meant); }

  // --- words ------------------------------------------------------------------------------------

  /// Walks the arguments as the launcher does; placeholders belong into quoted ones.
  void CheckQuotes(bool beginsWithProgram, std::string_view line) {
    bool isProgram = beginsWithProgram;
    while (const std::optional<std::string_view> word = runtime::TakeToken(line)) {
      if (!word->starts_with('"')) {
        CheckBareWord(*word, isProgram);
      } else if (word->size() == 1 || !word->ends_with('"')) {
        Add("a double quote is not closed", "one more is meant behind " + report_.Quoted(*word));
      } else if (!line.empty() && !line.starts_with(' ')) {
        Add("no blank stands behind the closing quote of " + report_.Quoted(*word),
            "the rest becomes an argument of its own");
      }
      isProgram = false;
    }
  }
  void CheckBareWord(std::string_view word, bool isProgram) {
    if (word.starts_with('\'')) {
      Add("single quotes hold nothing together: " + report_.Quoted(word),
          "double quotes are meant");
    } else if (word.find('"') != std::string_view::npos) {
      Add("the double quote inside " + report_.Quoted(word) + " holds nothing together",
          "an argument has to begin with it");
    }
    if (!isProgram && use_.isFilled && HoldsPlaceholder(word)) {
      Add("placeholder in " + report_.Quoted(word) + " is not quoted, and a value may hold blanks",
          "the argument is meant to stand in double quotes");
    }
  }
  void CheckWords(const std::vector<std::string>& words) {
    for (std::size_t i = 1; i < words.size(); ++i) {
      const std::string& word = words[i];
      if (std::ranges::find(kShellWords, word) != kShellWords.end()) {
        Add(report_.Quoted(word) + " is an argument like any other, for there is no shell",
            "a script is meant, or /bin/sh -c \"...\"");
      } else if (word == ">" && i + 2 != words.size()) {
        Add("'>' is an argument like any other", "only a last '> FILE' takes the output");
      }
    }
    CheckScript(words);
    if (runtime::RedirectsOutput(words)) {
      CheckMadePath(report_, use_.isFilled, "output's", words.back());
    }
  }
  /// What a card says must not become a part of a script.
  void CheckScript(const std::vector<std::string>& words) {
    if (!use_.isFilled) return;
    for (auto option = words.begin() + 1; option != words.end(); ++option) {
      if (!TakesScript(*option)) continue;
      // It may stand behind further options.
      const auto script = std::find_if(option + 1, words.end(), [](const std::string& word) {
        return !word.starts_with('-') && !word.starts_with('+');
      });
      if (script == words.end() || !HoldsPlaceholder(*script)) continue;
      return Add("a placeholder stands behind " + report_.Quoted(*option) +
                     ", where a shell and its like take a script and run what the card says",
                 "give it as an argument behind the script, as in \"echo $1\" x \"%UPN%\"");
    }
  }

  // --- keywords ---------------------------------------------------------------------------------

  void CheckApplication(std::string_view text) {
    const ApplicationParts parts = SplitApplication(text);
    if (parts.program.empty()) return Add("there is no program", "application \"PATH\" is meant");
    if (text.starts_with('"') && std::ranges::count(text, '"') == 1) {
      Add("a double quote is not closed", "one is meant behind the program's path");
    }
    CheckLine(parts.program, parts.arguments);
  }
  void CheckParallel(std::string_view text) {
    if (text.size() > kMaxParallelCommand) {
      Add("the command behind 'parallel' has more than 255 characters and is refused",
          "a shorter one, or a script, is meant");
    }
    Check(text);
  }
  void CheckSet(std::string_view text) {
    for (const std::string& word : runtime::SplitArguments("", text)) {
      if (!word.starts_with('-') || Contains(kCommandOptions, word)) continue;
      Add("'set' knows no option " + report_.Quoted(word),
          MeantName(report_.Hides(word) ? "" : word, kCommandOptions,
                    "-config FILE or -match TEXT is meant"));
    }
    const SetOptions options = ParseSetOptions(text);
    if (!options.config.empty()) return CheckValuesPath(report_, use_.isFilled, options.config);
    if (options.registry.empty()) Add("'set' has no file and fails", "-config FILE is meant");
  }
  void CheckDocument(std::string_view text) {
    text = runtime::DropTrailingBlanks(runtime::SkipBlanks(text));
    if (text.empty()) return Add("there is no document", "its path is meant");
    CheckDocumentPath(report_, std::string(text));
  }
  void CheckLoad(std::string_view text) {
    const std::optional<runtime::ExternalCall> call = runtime::ParseExternalCall(text);
    if (!call) {
      return Add("'load' needs a comma behind the library and a blank behind the function",
                 "load LIBRARY,FUNCTION ARGUMENTS is meant");
    }
    CheckLibraryPath(report_, std::string(call->library));
  }
  void CheckExtern(std::string_view text) {
    const std::optional<ExternParts> parts = ParseExtern(text);
    if (!parts) {
      return Add("'extern' needs a comma behind the library", "extern LIBRARY,ARGUMENTS is meant");
    }
    CheckLibraryPath(report_, parts->library);
    if (!parts->file.empty()) CheckValuesPath(report_, use_.isFilled, parts->file);
  }

  const Report& report_;
  const CommandUse use_;
};

}  // namespace

void CheckCommand(const Report& report, const CommandUse& use, std::string_view text) {
  CheckPlaceholders(report, use.isFilled, text);
  CommandCheck(report, use).Check(text);
}

void CheckKeywordCommand(const Report& report, const CWatchOptions& record) {
  if (record.program.empty()) return;
  CheckPlaceholders(report, false, record.arguments);
  CommandCheck(report, {EventKind::kInsert, false}).CheckLine(record.program, record.arguments);
  if (record.configFile.empty()) return;
  CheckPlaceholders(report, false, record.configFile);
  CheckValuesPath(report, false, record.configFile);
}

std::string DescribeCommand(EventKind kind, std::string_view text,
                            const runtime::MaskedLine& line) {
  const CommandParts parts = SplitCommand(kind, text);
  const std::string rest = Shown(line.Part(parts.text));
  switch (parts.kind) {
    case CommandKind::kProgram:
    case CommandKind::kApplication:
      return "start " + rest;
    case CommandKind::kParallel:
      return "at the same time: " + DescribeCommand(kind, parts.text, line);
    case CommandKind::kSet: {
      const SetOptions options = ParseSetOptions(parts.text);
      const std::string file = Shown(line.Part(options.config));
      if (kind == EventKind::kInsert) return "write the logon values into " + file;
      return options.restore ? "put " + file + ".org back and clear it" : "clear " + file;
    }
    case CommandKind::kDocument:
      return "show " + rest;
    case CommandKind::kLoad:
      return "call " + rest;
    case CommandKind::kExtern:
      return "ask " + rest;
    case CommandKind::kNothing:
      return "nothing, with success (" + Shown(line.Part(text)) + ")";
    case CommandKind::kFailure:
      return "nothing, without success (" + Shown(line.Part(text)) + ")";
  }
  return {};
}

}  // namespace qixx::watch
