// The options of a watcher's line. One table for all that need them: the parser reads by it, --help
// prints it, --check judges by it, and a test compares the manual page and the completions with it.
#pragma once

#include <array>
#include <string_view>

namespace qixx::watch {

enum class PositionalOption {
  kWaitFlag,
  kMatch,
  kWait,
  kMessage,
  kHide,
  kSync,
  kTerminate,
  kRecognized,
  kSimulate,
};

struct PositionalRow {
  PositionalOption option;
  std::string_view head;   ///< as it stands in a line; one that ends in a quote has a quoted value
  std::string_view value;  ///< its name
  std::string_view help;   ///< empty: kept for other programs, and not shown
};

/// In the order in which they have to stand.
inline constexpr std::array kPositionalOptions = {
    PositionalRow{PositionalOption::kWaitFlag, "-w ", "", ""},
    PositionalRow{PositionalOption::kMatch, "-match \"", "TEXT",
                  "insert commands only for a certificate that matches"},
    PositionalRow{PositionalOption::kWait, "-wait \"", "IN|OUT",
                  "seconds to wait before insert and remove commands"},
    PositionalRow{PositionalOption::kMessage, "-message \"", "IN|OUT",
                  "kept for other programs of the suite"},
    PositionalRow{PositionalOption::kHide, "-hide ", "[insert|remove]",
                  "start programs hidden (nothing on this platform)"},
    PositionalRow{PositionalOption::kSync, "-sync ", "", "no removal before an insertion"},
    PositionalRow{PositionalOption::kTerminate, "-term ", "",
                  "end what was started (nothing on this platform)"},
    PositionalRow{PositionalOption::kRecognized, "-recognized ", "",
                  "only cards whose token can be read"},
    PositionalRow{PositionalOption::kSimulate, "-simulate \"", "EVENT",
                  "run the \"insert\" or \"remove\" commands once and end"},
};

struct KeywordRow {
  std::string_view name;
  std::string_view value;  ///< empty for a flag
  std::string_view help;   ///< empty: as above, or kept, and not shown
};

/// In any order, but the first two make the form.
inline constexpr std::array kKeywordOptions = {
    KeywordRow{"-p", "PROGRAM", "start this program on insertion"},
    KeywordRow{"-c", "FILE", "write the logon values here, clear them on removal"},
    KeywordRow{"-a", "ARGUMENTS", "arguments of the program"},
    KeywordRow{"-n", "ROUNDS", "poll so often, then end"},
    KeywordRow{"-w", "SECONDS", "wait before an insertion is carried out"},
    KeywordRow{"-match", "TEXT", ""},
    KeywordRow{"-r", "PLACE", ""},
    KeywordRow{"-m", "TEXT", ""},
    KeywordRow{"-t", "", ""},
    KeywordRow{"-hide", "", ""},
    KeywordRow{"-sync", "", ""},
    KeywordRow{"-term", "", ""},
    KeywordRow{"-recognized", "", ""},
};

struct PeopleRow {
  std::string_view name;
  std::string_view shortName;
  std::string_view value;
  std::string_view help;
};

/// The words for people, as the first argument.
inline constexpr std::array kPeopleOptions = {
    PeopleRow{"--check", "", "[FILE...]", "say what is wrong with the configuration"},
    PeopleRow{"--list", "", "[--json]", "show files, library, readers, cards and values"},
    PeopleRow{"--help", "-h", "", "print this text"},
    PeopleRow{"--version", "-V", "", "print the version"},
};

}  // namespace qixx::watch
