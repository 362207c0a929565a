#include "watch/extern_command.h"

#include "runtime/library_call.h"
#include "runtime/loader.h"
#include "runtime/scarce_means.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/card_text.h"
#include "watch/guard.h"
#include "watch/logon_file.h"
#include "watch/options.h"

namespace qixx::watch {
namespace {

/// Fills `answer` with "user name;domain" and returns non-zero.
using ReadCommandEntry = int (*)(const char* reader, const char* arguments, char* answer, int size);
/// The size that the library is told; its text is ended at the last byte whatever it wrote.
constexpr std::size_t kAnswerSize = 256;

std::string AnswerField(std::string_view answer, std::size_t index) {
  return CleanCardText(runtime::GetField(answer, index, ';').value_or(""));
}

/// Nothing without an answer.
std::optional<std::string> ReadAnswer(const runtime::SharedLibrary& library,
                                      const std::string& reader, const std::string& arguments) {
  const auto read = library.FindSymbol<ReadCommandEntry>("ReadCommand");
  char answer[kAnswerSize] = "";
  int answered = 0;
  if (read == nullptr || !runtime::CallLibrary([&] {
        answered = read(reader.c_str(), arguments.c_str(), answer, sizeof answer);
      })) {
    return std::nullopt;
  }
  answer[sizeof answer - 1] = '\0';
  if (answered == 0) return std::nullopt;
  return answer;
}

bool AskLibrary(CardReader& card, const WatchEvent& event, std::string_view text) {
  if (event.IsSimulated()) return false;
  const std::optional<SlotDescription> slot = card.Description(event.slot);
  const std::optional<ExternParts> parts = ParseExtern(text);
  if (!slot || !parts || parts->file.size() > kMaxOption) return false;
  // Libraries know a reader by the slot's description without its padding.
  const std::string reader(runtime::DropTrailingBlanks(runtime::TextOf(*slot)));
  const runtime::SharedLibrary library = runtime::OpenLibrary(parts->library);
  if (!library.IsOpen()) {
    runtime::TraceWrite("Helper - Failed to load '%s'", runtime::MaskedText(parts->library).Text());
    return false;
  }
  const std::optional<std::string> answer = ReadAnswer(library, reader, parts->arguments);
  if (!answer) return false;
  const runtime::ScarceMeans scarce;
  WriteLogonName(parts->file, {AnswerField(*answer, 0), AnswerField(*answer, 1)}, event.cardsGone);
  // The library has answered: a removal does not ask it again for the sake of the file.
  if (!event.IsInsert()) scarce.TakeBack();
  return true;
}

}  // namespace

std::optional<ExternParts> ParseExtern(std::string_view text) {
  const std::size_t comma = text.find(',');
  if (comma == std::string_view::npos) return std::nullopt;
  ExternParts parts{std::string(text.substr(0, comma)), std::string(text.substr(comma + 1)), {}};
  // "-registry" names a place that this platform does not have.
  parts.file = GetCommandOption(parts.arguments, "-config", kWholeOption).value_or("");
  return parts;
}

bool RunExtern(CardReader& card, const WatchEvent& event, std::string_view text) {
  runtime::TraceWrite("Helper - Extern command ...");
  bool success = false;
  const AtExit end([&success] {
    runtime::TraceWrite("Helper - Extern command ... %s", success ? "OK" : "FAILED");
  });
  success = AskLibrary(card, event, text);
  return success;
}

}  // namespace qixx::watch
