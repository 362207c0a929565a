#include "watch/check_command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "runtime/loader.h"
#include "runtime/process.h"
#include "runtime/text.h"
#include "watch/command.h"
#include "watch/parallel.h"
#include "watch/placeholders.h"
#include "watch/set_command.h"

namespace qixx::watch {
namespace {

constexpr std::array kPlaceholders = {kUpnPlaceholder, kUserNamePlaceholder, kDomainPlaceholder,
                                      kSubjectPlaceholder, kSerialPlaceholder};
constexpr std::array<std::string_view, 10> kShellWords = {"|",  "||", "&",  "&&",   ";",
                                                          ">>", "<",  "2>", "2>&1", "&>"};
constexpr std::array<std::string_view, 6> kShells = {"sh", "bash", "dash", "zsh", "ksh", "ash"};

// --- placeholders -------------------------------------------------------------------------------

struct Placeholder {
  std::string_view text;  ///< with both '%'
  bool isKnown = false;
};

bool IsPlaceholderName(std::string_view name) {
  return name.size() >= 3 && std::ranges::all_of(name, [](unsigned char c) {
           return std::isalnum(c) != 0 || c == '.' || c == '-';
         });
}

/// The next "%name%" at or behind `at`, which moves to its end; names shorter than those that are
/// known are somebody else's.
std::optional<Placeholder> NextPlaceholder(std::string_view text, std::size_t& at) {
  for (at = text.find('%', at); at != std::string_view::npos; at = text.find('%', at + 1)) {
    const std::size_t end = text.find('%', at + 1);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view whole = text.substr(at, end + 1 - at);
    const bool isComponent = runtime::StartsWithNoCase(whole, kComponentPrefix);
    if (!isComponent && !IsPlaceholderName(whole.substr(1, whole.size() - 2))) continue;
    at = end + 1;
    const bool isKnown =
        isComponent || std::ranges::any_of(kPlaceholders, [whole](std::string_view known) {
          return runtime::EqualsNoCase(known, whole);
        });
    return Placeholder{whole, isKnown};
  }
  return std::nullopt;
}

bool HoldsPlaceholder(std::string_view text) {
  std::size_t at = 0;
  while (const std::optional<Placeholder> found = NextPlaceholder(text, at)) {
    if (found->isKnown) return true;
  }
  return false;
}

// --- files --------------------------------------------------------------------------------------

bool May(const std::string& path, int mode) {
  return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

/// Where a program without a path would be found by a shell; empty when nowhere.
std::string FindInPath(const std::string& name) {
  const std::string_view folders = runtime::ViewOf(std::getenv("PATH"));
  for (std::size_t index = 0; const auto folder = runtime::GetField(folders, index, ':'); ++index) {
    std::string path = std::string(*folder) + "/" + name;
    if (folder->starts_with('/') && May(path, X_OK)) return path;
  }
  return {};
}

// --- one command --------------------------------------------------------------------------------

class CommandCheck {
 public:
  CommandCheck(const Place& place, const CommandUse& use, Mistakes& mistakes)
      : place_(place), use_(use), mistakes_(mistakes) {}

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

  void CheckPlaceholders(std::string_view text) {
    std::size_t at = 0;
    while (const std::optional<Placeholder> found = NextPlaceholder(text, at)) {
      if (!found->isKnown) {
        const std::string_view nearest = NearestName(found->text, kPlaceholders);
        if (!nearest.empty()) {
          Add("there is no placeholder " + Quoted(found->text), Quoted(nearest) + " is meant");
        }
      } else if (!use_.isFilled) {
        Add("placeholder " + Quoted(found->text) + " is not filled here",
            "only the numbered commands of an insertion get values");
      }
    }
    const std::size_t open = runtime::FindTextNoCase(text, kComponentPrefix);
    if (open != std::string_view::npos && text.find('%', open + 1) == std::string_view::npos) {
      Add("placeholder " + Quoted(text.substr(open)) + " has no end", "'%OID.cn%' is meant");
    }
  }

  /// A program and its arguments; without a program the first argument is it.
  void CheckLine(std::string_view program, std::string_view arguments) {
    const std::vector<std::string> words = runtime::SplitArguments(program, arguments);
    if (words.empty()) return Add("there is no program", "its whole path is meant");
    CheckProgram(words.front());
    CheckQuotes(program.empty(), arguments);
    CheckWords(words);
  }

  void CheckTargetFile(const std::string& file) {
    if (HoldsPlaceholder(file)) return;
    if (!CheckPath("file", file)) return;
    if (!Exists("file", file)) return;
    if (!May(file, W_OK)) return Add("file " + Quoted(file) + " may not be written", WhoIsMeant());
    const std::string folder = FolderOf(file);
    if (!May(folder, W_OK | X_OK)) {
      Add("folder " + Quoted(folder) + " may not be written, so there can be no saved copy '.org'",
          WhoIsMeant());
    }
  }

 private:
  void Add(std::string_view wrong, std::string_view meant) { mistakes_.Add(place_, wrong, meant); }
  static std::string WhoIsMeant() { return "check as the user that the service runs as"; }

  // --- paths ------------------------------------------------------------------------------------

  bool CheckPath(const std::string& what, const std::string& path) {
    if (path.starts_with("~") || path.find('$') != std::string::npos) {
      Add(what + " " + Quoted(path) + " is taken as it stands, for there is no shell",
          "the whole path is meant");
      return false;
    }
    if (!path.starts_with('/')) {
      Add(what + " " + Quoted(path) + " is looked for in the folder that the service starts in",
          "the whole path is meant");
      return false;
    }
    return true;
  }
  bool Exists(const std::string& what, const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
      Add("there is no " + what + " " + Quoted(path) + " (" + std::strerror(errno) + ")",
          "the path of one that is there is meant");
      return false;
    }
    if (S_ISREG(status.st_mode)) return true;
    Add(Quoted(path) + " is no regular file", "a " + what + " is meant");
    return false;
  }

  void CheckProgram(const std::string& program) {
    if (program.size() > kMaxProgram)
      Add("the program's path has more than 255 characters", "a shorter one is meant");
    if (program.starts_with('%')) {
      return Add("a placeholder begins the command, so the card decides what is started",
                 "a program's path is meant");
    }
    if (HoldsPlaceholder(program)) {
      return Add("the program's path holds a placeholder, so the card decides what is started",
                 "a program's path is meant");
    }
    if (program.find('/') == std::string::npos) {
      const std::string found = FindInPath(program);
      return Add("program " + Quoted(program) + " has no path, and none is searched",
                 found.empty() ? "a program's whole path, or a command's keyword, is meant"
                               : Quoted(found) + " is meant");
    }
    if (!CheckPath("program", program) || !Exists("program", program)) return;
    if (!May(program, X_OK)) Add("program " + Quoted(program) + " is not executable", "chmod +x");
  }

  void CheckLibrary(std::string_view path) {
    const std::string library(path);
    if (HoldsPlaceholder(path)) {
      return Add("the library's path holds a placeholder, so the card decides what is loaded",
                 "a library's path is meant");
    }
    // Without a slash the loader looks for it, by rules and caches of its own.
    if (library.find('/') == std::string::npos) return;
    if (CheckPath("library", library) && Exists("library", library) && !May(library, R_OK)) {
      Add("library " + Quoted(library) + " may not be read", WhoIsMeant());
    }
  }

  // --- words ------------------------------------------------------------------------------------

  /// Walks the arguments as the launcher does; placeholders belong into quoted ones.
  void CheckQuotes(bool beginsWithProgram, std::string_view line) {
    bool isProgram = beginsWithProgram;
    for (std::size_t at = line.find_first_not_of(' '); at < line.size();
         at = line.find_first_not_of(' ', at)) {
      const bool quoted = line[at] == '"';
      const std::size_t stop = line.find(quoted ? '"' : ' ', at + 1);
      const std::size_t end = std::min(stop, line.size());
      const std::string_view word = line.substr(at, end - at);
      if (quoted && stop == std::string_view::npos) {
        Add("a double quote is not closed", "one more is meant behind " + Quoted(word));
      } else if (!quoted) {
        CheckBareWord(word, isProgram);
      } else if (end + 1 < line.size() && line[end + 1] != ' ') {
        Add("no blank stands behind the closing quote of " + Quoted(word),
            "the rest becomes an argument of its own");
      }
      isProgram = false;
      at = quoted && stop != std::string_view::npos ? end + 1 : end;
    }
  }
  void CheckBareWord(std::string_view word, bool isProgram) {
    if (word.starts_with('\'')) {
      Add("single quotes hold nothing together: " + Quoted(word), "double quotes are meant");
    } else if (word.find('"') != std::string_view::npos) {
      Add("the double quote inside " + Quoted(word) + " holds nothing together",
          "an argument has to begin with it");
    }
    if (!isProgram && use_.isFilled && HoldsPlaceholder(word)) {
      Add("placeholder in " + Quoted(word) + " is not quoted, and a value may hold blanks",
          "the argument is meant to stand in double quotes");
    }
  }
  void CheckWords(const std::vector<std::string>& words) {
    for (std::size_t i = 1; i < words.size(); ++i) {
      const std::string& word = words[i];
      if (std::ranges::find(kShellWords, word) != kShellWords.end()) {
        Add(Quoted(word) + " is an argument like any other, for there is no shell",
            "a script is meant, or /bin/sh -c \"...\"");
      } else if (word == ">" && i + 2 != words.size()) {
        Add("'>' is an argument like any other", "only a last '> FILE' takes the output");
      }
    }
    CheckShell(words);
    if (words.size() >= 3 && words[words.size() - 2] == ">") CheckOutput(words.back());
  }
  /// What a card says must not become a part of a script.
  void CheckShell(const std::vector<std::string>& words) {
    const std::string_view program = words.front();
    const std::string_view name = program.substr(program.rfind('/') + 1);
    if (!use_.isFilled || std::ranges::find(kShells, name) == kShells.end()) return;
    const auto option = std::ranges::find(words, "-c");
    if (option == words.end() || option + 1 == words.end() || !HoldsPlaceholder(option[1])) return;
    Add("a placeholder stands in the script of a shell, which runs what the card says",
        "give it as an argument behind the script, as in \"echo $1\" x \"%UPN%\"");
  }
  void CheckOutput(const std::string& file) {
    if (HoldsPlaceholder(file) || file == "/dev/null" || !CheckPath("file", file)) return;
    const std::string folder = FolderOf(file);
    if (May(file, F_OK) ? !May(file, W_OK) : !May(folder, W_OK | X_OK)) {
      Add("file " + Quoted(file) + " may not be written", WhoIsMeant());
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
      if (!word.starts_with('-')) continue;
      if (std::ranges::any_of(kCommandOptions, [&word](std::string_view option) {
            return runtime::EqualsNoCase(option, word);
          })) {
        continue;
      }
      Add("'set' knows no option " + Quoted(word),
          MeantName(word, kCommandOptions, "-config FILE or -match TEXT is meant"));
    }
    const SetOptions options = ParseSetOptions(text);
    if (options.config.size() > kMaxOption) {
      return Add("the file's path has more than 255 characters, so 'set' fails",
                 "a shorter one is meant");
    }
    if (!options.config.empty()) return CheckTargetFile(options.config);
    if (options.registry.empty()) Add("'set' has no file and fails", "-config FILE is meant");
  }
  void CheckDocument(std::string_view text) {
    const std::string document(runtime::DropTrailingBlanks(runtime::SkipBlanks(text)));
    if (document.empty()) return Add("there is no document", "its path is meant");
    if (!May(kDocumentViewer, X_OK)) {
      Add("there is no " + Quoted(kDocumentViewer), "it shows documents: install xdg-utils");
    }
    if (HoldsPlaceholder(document) || document.find(':') != std::string::npos) return;
    std::string path = document;
    std::erase(path, '"');
    if (CheckPath("document", path)) Exists("document", path);
  }
  void CheckLoad(std::string_view text) {
    const std::optional<runtime::ExternalCall> call = runtime::ParseExternalCall(text);
    if (!call) {
      return Add("'load' needs a comma behind the library and a blank behind the function",
                 "load LIBRARY,FUNCTION ARGUMENTS is meant");
    }
    CheckLibrary(call->library);
  }
  void CheckExtern(std::string_view text) {
    const std::size_t comma = text.find(',');
    if (comma == std::string_view::npos) {
      return Add("'extern' needs a comma behind the library", "extern LIBRARY,ARGUMENTS is meant");
    }
    CheckLibrary(text.substr(0, comma));
    const std::string file =
        GetCommandOption(text.substr(comma + 1), "-config", kWholeOption).value_or("");
    if (!file.empty()) CheckTargetFile(file);
  }

  const Place& place_;
  const CommandUse& use_;
  Mistakes& mistakes_;
};

}  // namespace

void CheckCommand(const Place& place, const CommandUse& use, std::string_view text,
                  Mistakes& mistakes) {
  CommandCheck check(place, use, mistakes);
  check.CheckPlaceholders(text);
  check.Check(text);
}

void CheckProgramOption(const Place& place, std::string_view program, std::string_view arguments,
                        Mistakes& mistakes) {
  const CommandUse use{EventKind::kInsert, false};
  CommandCheck check(place, use, mistakes);
  check.CheckPlaceholders(arguments);
  check.CheckLine(program, arguments);
}

void CheckTarget(const Place& place, std::string_view file, Mistakes& mistakes) {
  const CommandUse use{EventKind::kInsert, false};
  CommandCheck check(place, use, mistakes);
  check.CheckPlaceholders(file);
  check.CheckTargetFile(std::string(file));
}

std::string DescribeCommand(EventKind kind, std::string_view text) {
  const CommandParts parts = SplitCommand(kind, text);
  const std::string rest = Shown(parts.text);
  switch (parts.kind) {
    case CommandKind::kProgram:
    case CommandKind::kApplication:
      return "start " + rest;
    case CommandKind::kParallel:
      return "at the same time: " + DescribeCommand(kind, parts.text);
    case CommandKind::kSet: {
      const SetOptions options = ParseSetOptions(parts.text);
      const std::string file = Shown(options.config);
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
      return "nothing, with success (" + Shown(text) + ")";
    case CommandKind::kFailure:
      return "nothing, without success (" + Shown(text) + ")";
  }
  return {};
}

}  // namespace qixx::watch
