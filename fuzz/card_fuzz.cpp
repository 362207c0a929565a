// A card all of whose texts are the input, on its whole way: into a command, a file, the trace.
//
// Each line is a text: the principal name, the e-mail address, what the token notes, and then the
// subject, of which a first byte chooses the kind of string. Whatever they are, a command keeps its
// arguments and options, a file its lines, sections, entries and conditions.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "config/file.h"
#include "config/scan.h"
#include "der/names.h"
#include "fuzz/fuzz.h"
#include "runtime/process.h"
#include "runtime/product.h"
#include "runtime/spare_trace.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "tests/support/recipes.h"
#include "tests/support/temporary_folder.h"
#include "tests/watch/scripted.h"
#include "watch/card_text.h"
#include "watch/command.h"
#include "watch/edit_in_time.h"
#include "watch/event_table.h"
#include "watch/logon_file.h"
#include "watch/placeholders.h"
#include "watch/set_command.h"

namespace {

using namespace qixx;
using fuzzing::Require;

/// Longer texts only show that long values are left out.
constexpr std::size_t kMaxInput = 600;

constexpr std::string_view kProgram =
    R"(/bin/note "%UPN%" "user=%USERNAME%" "a %OID.cn%%OID.o% b" x "%SUBJECT%" "%DOMAIN%" "-%OID.ou%")";
constexpr std::string_view kSet =
    R"(-match "%OID.cn%%OID.o%" -registry "%SUBJECT%" -config "/base/.%USERNAME%/%OID.cn%./f")";
constexpr std::string_view kExtern = R"(%UPN% %OID.cn% %SUBJECT% -config "/base/f")";
/// Without quotes, or with quotes that begin no argument, values become arguments, but no more.
constexpr std::string_view kBare[] = {
    "/bin/note Card of <%UPN%> %OID.cn%",
    "application /bin/note %USERNAME%>%DOMAIN% %OID.o%> %OID.cn%%OID.ou%",
    "/bin/note %SUBJECT% -%OID.cn% -%OID.o% > /base/f",
    "/bin/note %OID.%USERNAME%%> \"%OID.cn%\" %OID.ou% > \"/base/f\"",
    R"(/bin/note --text="a %OID.cn%" > "/base/f" "%UPN% > x" --b="%OID.o%"%OID.ou%"c" > /base/f)",
    "set -config /base/f %OID.cn%-%OID.o% -%OID.ou% -re%UPN% %SUBJECT%gistry",
    "/bin/note /base/%OID.cn% /base/%OID.o%/f",
};
constexpr std::string_view kFile =
    "[Logon]\nUsername=\nDomain=x\nName=%USERNAME%\nname2=a|%OID.cn%|%OID.o%\n; %SUBJECT%\n"
    "%USERNAME% = \n  %DOMAIN%%USERNAME%x\n%OID.none%%OID.cn% y\n# z\n"
    "[Watch Remove]\n1=note \"%OID.cn%\"\n%SUBJECT%%SERIALNUMBER% z\n-[%OID.o%\n%OID.ou%w\n"
    "<Image =\nAA==/>\n<off for %OID.cn%\n[Hidden]\n1=%OID.o%>\n/> "
    "%OID.ou%\n[Seen]\n1=%OID.ou%/>\n";

/// The kinds of string that a certificate may have (ITU-T X.680).
constexpr int kStringTags[] = {0x0C, 0x13, 0x14, 0x16, 0x1C, 0x1E};

testing::Recipe ReadRecipe(fuzzing::Input& input, std::string& noted) {
  const auto line = [&input] { return input.Line().substr(0, kMaxInput); };
  testing::Recipe recipe;
  recipe.alternativeNames = testing::OtherName(der::kUserPrincipalName, line());
  recipe.alternativeNames += testing::Der(0x81, line());
  noted = line();
  recipe.subject.clear();
  for (const char* const type : {"cn", "o", "cn", "ou", "1.2.840.113549.1.9.1", "2.5.4.99"}) {
    const int tag = kStringTags[input.Byte() % std::size(kStringTags)];
    recipe.subject += testing::Part(type, line(), tag);
  }
  if (input.Byte() % 4 == 1) recipe.extensions.clear();
  return recipe;
}

/// No byte that a reader of the text would see otherwise than it stands.
bool IsPlain(std::string_view text) {
  while (!text.empty()) {
    const std::optional<char32_t> character = runtime::TakeUtf8(text);
    if (!character || *character < 0x20 || (*character >= 0x7F && *character < 0xA0)) return false;
    if (*character >= 0x202A && *character <= 0x202E) return false;
  }
  return true;
}

void RequirePlainLine(const char* line, std::size_t length) {
  const std::string_view text(line, length);
  Require(text.ends_with('\n') &&
          (length > runtime::kMaxTraceLine - 4 || IsPlain(text.substr(0, length - 1))));
}

std::size_t Count(std::string_view text, std::string_view characters) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [characters](char c) { return characters.find(c) != std::string_view::npos; }));
}

std::string Expand(watch::CardReader& card, std::string_view text, std::size_t limit) {
  std::string expanded = watch::ExpandLogonPlaceholders(card, "", std::string(text), limit);
  Require(expanded.size() <= limit && IsPlain(expanded));
  Require(Count(expanded, "\"|") == Count(text, "\"|"));
  return expanded;
}

/// The same redirection, to the same file, no path out of its folder, and the same options.
void RequireSameCommand(std::string_view text, std::string_view before) {
  const std::vector<std::string> got = runtime::SplitArguments("", text);
  const std::vector<std::string> given = runtime::SplitArguments("", before);
  Require(std::ranges::count(got, ">") == std::ranges::count(given, ">"));
  Require(runtime::RedirectsOutput(got) == runtime::RedirectsOutput(given));
  Require(!runtime::RedirectsOutput(got) || got.back() == given.back());
  for (const std::filesystem::path entry : got) {
    if (entry.string().starts_with("/base/"))
      Require(entry.lexically_normal().string().starts_with("/base/"));
  }
  const std::string_view config = before.starts_with("set ") ? "/base/f" : "";
  Require(watch::GetCommandOption(text, "-config").value_or("") == config);
  Require(!watch::GetCommandOption(text, "-registry"));
}

void TryCommands(watch::CardReader& card, std::size_t limit) {
  const std::string program = Expand(card, kProgram, limit);
  const std::vector<std::string> given = runtime::SplitArguments("", kProgram);
  const std::vector<std::string> got = runtime::SplitArguments("", program);
  Require(got.size() == given.size() && got.front() == given.front());
  Require(std::ranges::find(got, ">") == got.end());

  const watch::SetOptions options = watch::ParseSetOptions(Expand(card, kSet, limit));
  Require(!options.restore);
  const std::filesystem::path path = options.config;
  Require(path.lexically_normal().string().starts_with("/base/"));
  for (const std::string_view bare : kBare) RequireSameCommand(Expand(card, bare, limit), bare);
  const std::string text = Expand(card, kExtern, limit);
  Require(watch::GetCommandOption(text, "-config") == "/base/f");
}

/// The sections in their order, each with the number of its entries.
std::vector<std::pair<std::string, int>> Shape(const std::string& text) {
  config::CConfigFile file;
  Require(file.OpenText("f", text) == config::ConfigResult::kOk);
  std::vector<std::pair<std::string, int>> sections;
  for (std::size_t index = 0;;) {
    const std::optional<config::ConfigEntry> entry = file.EnumEntries(index);
    if (!entry) return sections;
    if (sections.empty() || sections.back().first != entry->section) {
      sections.emplace_back(entry->section, 0);
    }
    ++sections.back().second;
  }
}

void RequireAlike(const std::string& text, std::string_view before) {
  Require(IsPlain(text) || text.find('\n') != std::string::npos);
  Require(Count(text, "\n") == Count(before, "\n") && Count(text, "\r|\"") == Count(before, "|\""));
  Require(text.size() <= watch::MaxFilledText(before.size()));
  Require(Shape(text) == Shape(std::string(before)));
  Require(text.find("\n1=note \"") != std::string::npos);
  Require(!config::FindSection(text, "Hidden") && config::FindSection(text, "Seen"));
}

void TryFile(watch::CardReader& card, const char* command) {
  static const testing::TemporaryFolder folder;
  const std::string file = folder.Write("f", std::string(kFile));
  const watch::WatchEvent insert = {.kind = watch::EventKind::kInsert, .slot = 1};
  const watch::WatchEvent removal = {.kind = watch::EventKind::kRemove, .slot = 1};
  const std::string text = std::string(command) + " -config " + file;
  if (watch::ExecuteCommand(card, insert, text)) {
    const std::string once = folder.Read("f");
    RequireAlike(once, kFile);
    Require(watch::ExecuteCommand(card, insert, text) && folder.Read("f") == once);
  }
  Require(watch::ExecuteCommand(card, removal, text));
  RequireAlike(folder.Read("f"), kFile);
  std::filesystem::remove(folder.Path("f.org"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzzing::Input input(data, size);
  runtime::InitProductIdentity();
  watch::BeginEventEdits();  // each input has its own time
  runtime::TraceSetCallback(RequirePlainLine);
  testing::ScriptedReader card;
  std::string noted;
  const std::string certificate = ReadRecipe(input, noted).Build();
  card.tokens = {{1, "Reader", certificate}};
  card.activeLogon = noted;
  for (const std::size_t limit : {watch::kMaxInsertEntry, std::size_t{100'000}}) {
    TryCommands(card, limit);
  }
  for (const char* const command : {"set", "set -match fast"}) TryFile(card, command);
  for (const std::string& text : {noted, input.Rest()}) {
    const std::string cleaned = watch::CleanCardText(text);
    Require(cleaned.size() <= text.size() && watch::CleanCardText(cleaned) == cleaned);
  }
  return 0;
}
