#include "watch/command.h"

#include <algorithm>

#include "runtime/loader.h"
#include "runtime/notice.h"
#include "runtime/process.h"
#include "runtime/scarce_means.h"
#include "runtime/secrets.h"
#include "runtime/trace.h"
#include "watch/extern_command.h"
#include "watch/guard.h"
#include "watch/parallel.h"
#include "watch/set_command.h"
#include "watch/terminate_list.h"

namespace qixx::watch {
namespace {

/// What this platform's launcher tells of a program that it started.
constexpr std::uint64_t kNoProcessId = 0;

// --- programs -----------------------------------------------------------------------------------

/// Starts a program and remembers it where the removal is to end it.
bool StartTracked(const WatchEvent& event, const std::string& program, std::string_view arguments) {
  const std::optional<std::uint64_t> processId =
      StartCommandProcess(program, arguments, event.show);
  if (processId && event.terminate) AddToTerminateList(event.kind, event.slot, *processId);
  return processId.has_value();
}

bool RunProgram(CardReader& /*card*/, const WatchEvent& event, std::string_view line) {
  return StartTracked(event, "", line);
}

bool RunApplication(CardReader& /*card*/, const WatchEvent& event, std::string_view line) {
  const ApplicationParts parts = SplitApplication(line);
  return !parts.program.empty() && StartTracked(event, std::string(parts.program), parts.arguments);
}

/// Both document commands come to this; script mode has no effect on this platform.
bool OpenDocument(CardReader& /*card*/, const WatchEvent& event, std::string_view text) {
  std::string document(runtime::DropTrailingBlanks(runtime::SkipBlanks(text)));
  // The launcher's quotes know no escape, so a quote cannot be part of the one argument.
  std::erase(document, '"');
  if (document.empty()) return true;
  // The launcher takes the quotes off from four characters on.
  if (document.size() > 1) document = '"' + document + '"';
  StartCommandProcess(kDocumentViewer, document, event.show);
  return true;
}

// --- keywords -----------------------------------------------------------------------------------

bool RunLoad(CardReader& /*card*/, const WatchEvent& /*event*/, std::string_view text) {
  return runtime::CallExternal(text);
}

bool RunSetKeyword(CardReader& card, const WatchEvent& event, std::string_view text) {
  return SetCommand(card, event, ParseSetOptions(text));
}

bool Succeed(CardReader& /*card*/, const WatchEvent& /*event*/, std::string_view /*text*/) {
  return true;
}
bool Fail(CardReader& /*card*/, const WatchEvent& /*event*/, std::string_view /*text*/) {
  return false;
}

struct CommandKeyword {
  std::string_view head;
  bool (*run)(CardReader& card, const WatchEvent& event, std::string_view text);
  CommandKind kind;
  /// Nothing is said of what a program makes of its start, and the rest fails never or always.
  bool mayFail = false;
  bool removeOnly = false;
};

/// In the order in which they are tried; the last one is the head of everything. Registry commands
/// and the means to close windows or end programs by name do nothing on this platform, with the
/// results that lists of commands rely on.
constexpr CommandKeyword kCommandKeywords[] = {
    {"parallel ", RunParallel, CommandKind::kParallel},
    {.head = "-l", .run = Fail, .kind = CommandKind::kFailure, .removeOnly = true},
    {kRegistryKeyword, Succeed, CommandKind::kNothing},
    {.head = "set ", .run = RunSetKeyword, .kind = CommandKind::kSet, .mayFail = true},
    {"script ", OpenDocument, CommandKind::kDocument},
    {"open ", OpenDocument, CommandKind::kDocument},
    {kCloseKeyword, Fail, CommandKind::kFailure},
    {kKillKeyword, Succeed, CommandKind::kNothing},
    {.head = "load ", .run = RunLoad, .kind = CommandKind::kLoad, .mayFail = true},
    {.head = "extern ", .run = RunExtern, .kind = CommandKind::kExtern, .mayFail = true},
    {"application ", RunApplication, CommandKind::kApplication},
    {"", RunProgram, CommandKind::kProgram},
};

const CommandKeyword& FindKeyword(EventKind kind, std::string_view text) {
  return *std::ranges::find_if(kCommandKeywords, [kind, text](const CommandKeyword& keyword) {
    return (kind == EventKind::kRemove || !keyword.removeOnly) &&
           runtime::StartsWithNoCase(text, keyword.head);
  });
}

}  // namespace

CommandParts SplitCommand(EventKind kind, std::string_view text) {
  const CommandKeyword& keyword = FindKeyword(kind, text);
  return {keyword.kind, text.substr(keyword.head.size())};
}

std::vector<std::string_view> KeywordsThatMayFail() {
  std::vector<std::string_view> names;
  for (const CommandKeyword& keyword : kCommandKeywords) {
    if (keyword.mayFail) names.push_back(runtime::DropTrailingBlanks(keyword.head));
  }
  return names;
}

ApplicationParts SplitApplication(std::string_view line) {
  const bool quoted = line.starts_with('"');
  if (quoted) line.remove_prefix(1);
  const std::size_t end = std::min(line.find(quoted ? '"' : ' '), line.size());
  const std::string_view program = line.substr(0, end);
  line.remove_prefix(std::min(end + 1, line.size()));
  return {program, quoted ? runtime::SkipBlanks(line) : line};
}

bool ExecuteCommand(CardReader& card, const WatchEvent& event, std::string_view text) {
  runtime::TraceWrite("Watch - Execute %s command: %s", event.IsInsert() ? "insert" : "remove",
                      runtime::MaskedText(text).Text());
  const CommandKeyword& keyword = FindKeyword(event.kind, text);
  const bool success = keyword.run(card, event, text.substr(keyword.head.size()));
  // What fails by intent is no news, and neither is what a simulation has no card for.
  if (!success && keyword.kind != CommandKind::kFailure && !event.IsSimulated())
    RunStep([&] { runtime::NotifyOnce("command '" + runtime::MaskSecrets(text) + "' failed"); });
  return success;
}

bool RunRemoveCommand(CardReader& card, const WatchEvent& event, std::string_view text) {
  const runtime::ScarceMeans scarce;
  const bool hadMemory = RunStep([&] { ExecuteCommand(card, event, text); });
  return hadMemory && !scarce.Any();
}

std::optional<std::uint64_t> StartCommandProcess(const std::string& program,
                                                 std::string_view arguments, bool /*show*/) {
  if (program.size() > kMaxProgram || !runtime::LaunchProcess(program, arguments))
    return std::nullopt;
  return kNoProcessId;
}

}  // namespace qixx::watch
