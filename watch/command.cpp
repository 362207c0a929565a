#include "watch/command.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <span>
#include <string>

#include "pkcs11/wrapper.h"
#include "runtime/loader.h"
#include "runtime/process.h"
#include "runtime/secrets.h"
#include "runtime/sync.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/card_lock.h"
#include "watch/credentials.h"
#include "watch/options.h"
#include "watch/set_command.h"
#include "watch/terminate_list.h"

namespace qixx::watch {
namespace {

constexpr const char* kDocumentViewer = "/usr/bin/xdg-open";

/// What a command runs with, beside its text.
struct CommandContext {
  CK_SLOT_ID slot;
  bool insert;
  std::uint64_t wait;
  bool show;
  bool terminate;

  /// An event of a card always has a slot, so only a simulation inserts into none.
  [[nodiscard]] bool IsSimulated() const { return insert && slot == 0; }
};

// --- programs ---------------------------------------------------------------------------------

/// Starts a program and remembers it where the removal is to end it.
bool StartTracked(const CommandContext& context, const char* program, const char* arguments) {
  std::uint64_t processId = 0;
  if (!StartCommandProcess(program, arguments, context.wait, context.show, processId)) return false;
  if (processId != 0 && context.terminate) {
    AddToTerminateList(context.insert, context.slot, processId);
  }
  return true;
}

bool RunProgram(const CommandContext& context, const char* line) {
  return StartTracked(context, nullptr, line);
}

/// A program in quotes ends at the next quote and its arguments follow behind any blanks; any other
/// ends at the first blank, right behind which its arguments begin.
bool RunApplication(const CommandContext& context, const char* text) {
  std::string_view line(text);
  const bool quoted = line.starts_with('"');
  if (quoted) line.remove_prefix(1);
  const std::size_t end = std::min(runtime::FindChar(line, quoted ? '"' : ' '), line.size());
  const std::string program(line.substr(0, end));
  if (program.empty()) return false;

  line.remove_prefix(std::min(end + 1, line.size()));
  const std::string arguments(quoted ? runtime::SkipBlanks(line) : line);
  return StartTracked(context, program.c_str(), arguments.c_str());
}

/// Both document commands come to this; script mode has no effect on this platform.
bool OpenDocument(const CommandContext& context, const char* text) {
  std::string document(runtime::DropTrailingBlanks(runtime::SkipBlanks(text)));
  // The launcher's quotes know no escape, so a quote cannot be part of the one argument.
  std::erase(document, '"');
  if (document.empty()) return true;
  // The launcher takes the quotes off from four characters on.
  if (document.size() > 1) document = '"' + document + '"';
  runtime::LaunchProcess(kDocumentViewer, document.c_str(), runtime::kWaitNone, context.show,
                         nullptr);
  return true;
}

// --- commands on threads of their own ---------------------------------------------------------

/// One "parallel " command. Its thread owns it from the moment that the thread runs.
struct ParallelJob {
  CommandContext context;
  char text[runtime::kTextSize];
};

constinit std::atomic<unsigned> runningJobs{0};

/// Counts a job off, also one whose command ended the thread.
struct JobEnd {
  ~JobEnd() { runningJobs.fetch_sub(1, std::memory_order_release); }
};

void* RunParallelJob(void* argument) {
  const JobEnd end;
  runtime::ThreadDetachSelf();
  std::unique_ptr<ParallelJob> job(static_cast<ParallelJob*>(argument));
  runtime::TraceWrite("Watch - Thread execute command ...");
  const CommandContext& context = job->context;
  ExecuteCommand(context.slot, context.insert, job->text, context.wait, context.show,
                 context.terminate);
  job.reset();
  runtime::TraceWrite("Watch - Thread execute command ... done");
  return nullptr;
}

bool RunParallel(const CommandContext& context, const char* text) {
  std::unique_ptr<ParallelJob> job(new ParallelJob{context, {}});
  if (!runtime::CopyTextIfFits(job->text, text)) return false;
  runningJobs.fetch_add(1, std::memory_order_relaxed);
  if (runtime::ThreadCreate(&RunParallelJob, job.get()) == 0) {
    runningJobs.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
  // The thread frees it.
  static_cast<void>(job.release());
  return true;
}

// --- libraries --------------------------------------------------------------------------------

struct LibraryCloser {
  void operator()(void* library) const { runtime::CloseLibrary(library); }
};
using OwnedLibrary = std::unique_ptr<void, LibraryCloser>;

bool RunLoad(const CommandContext& /*context*/, const char* text) {
  // The call cuts the text while it runs.
  std::string copy(text);
  return runtime::CallExternal(copy.data());
}

/// Entry point of an "extern " library: fills `answer` with "user name;domain" and returns
/// non-zero.
using ReadCommandEntry = int (*)(const char* reader, const char* arguments, char* answer, int size);

/// The description of a slot without its padding, which is how libraries know the reader.
bool ReadReaderName(CK_SLOT_ID slot, std::string& reader) {
  CK_SLOT_INFO info{};
  {
    const CardScope card;
    if (pkcs11::Pkcs11().GetSlotInfo(slot, &info) != CKR_OK) return false;
  }
  const std::span description(reinterpret_cast<const char*>(info.slotDescription),
                              sizeof info.slotDescription);
  reader = runtime::DropTrailingBlanks(runtime::TextOf(description));
  return true;
}

std::string AnswerField(std::string_view answer, std::size_t index) {
  std::string_view field;
  if (!runtime::GetField(answer, index, ';', field)) return {};
  std::string value(field);
  CleanCardText(value);
  return value;
}

/// Writes the answer into the file that the arguments name; "-registry" names a place that this
/// platform does not have.
void WriteAnswer(std::string_view arguments, std::string_view answer) {
  char file[runtime::kTextSize] = "";
  if (!GetOptionValue(arguments, "-config", file) || file[0] == '\0') return;
  WriteLogonName(file, AnswerField(answer, 0), AnswerField(answer, 1));
}

/// False without an answer.
bool ReadAnswer(runtime::LibraryHandle library, const std::string& reader,
                const std::string& arguments, std::span<char> answer) {
  const auto read = reinterpret_cast<ReadCommandEntry>(runtime::FindSymbol(library, "ReadCommand"));
  const int size = static_cast<int>(answer.size());
  int answered = 0;
  if (read == nullptr || !runtime::CallLibrary([&] {
        answered = read(reader.c_str(), arguments.c_str(), answer.data(), size);
      })) {
    return false;
  }
  answer.back() = '\0';
  return answered != 0;
}

bool CallReadCommand(const std::string& path, const std::string& reader,
                     const std::string& arguments) {
  const OwnedLibrary library(runtime::OpenLibrary(path.c_str()));
  if (library == nullptr) {
    runtime::TraceWrite("Helper - Failed to load '%s'", runtime::MaskedText(path.c_str()).Text());
    return false;
  }
  char answer[runtime::kTextSize] = "";
  if (!ReadAnswer(library.get(), reader, arguments, answer)) return false;
  WriteAnswer(arguments, answer);
  return true;
}

bool AskLibrary(const CommandContext& context, std::string_view text) {
  std::string reader;
  if (context.IsSimulated() || !ReadReaderName(context.slot, reader)) return false;
  const std::size_t comma = runtime::FindChar(text, ',');
  if (comma == std::string_view::npos) return false;
  return CallReadCommand(std::string(text.substr(0, comma)), reader,
                         std::string(text.substr(comma + 1)));
}

bool RunExtern(const CommandContext& context, const char* text) {
  runtime::TraceWrite("Helper - Extern command ...");
  const bool success = AskLibrary(context, text);
  runtime::TraceWrite("Helper - Extern command ... %s", success ? "OK" : "FAILED");
  return success;
}

// --- keywords ---------------------------------------------------------------------------------

bool RunSet(const CommandContext& context, const char* text) {
  return SetCommand(context.slot, text, context.insert);
}

bool Succeed(const CommandContext& /*context*/, const char* /*text*/) {
  return true;
}
bool Fail(const CommandContext& /*context*/, const char* /*text*/) {
  return false;
}

struct Keyword {
  std::string_view head;
  bool removeOnly;
  bool (*run)(const CommandContext& context, const char* text);
};

/// In the order in which they are tried. Registry commands and the means to close windows or end
/// programs by name do nothing on this platform, with the results that lists of commands rely on.
constexpr Keyword kKeywords[] = {
    {"parallel ", false, RunParallel},
    {"-l", true, Fail},
    {"-r ", false, Succeed},
    {"set ", false, RunSet},
    {"script ", false, OpenDocument},
    {"open ", false, OpenDocument},
    {"close ", false, Fail},
    {"kill ", false, Succeed},
    {"load ", false, RunLoad},
    {"extern ", false, RunExtern},
    {"application ", false, RunApplication},
};

bool Dispatch(const CommandContext& context, const char* text) {
  for (const Keyword& keyword : kKeywords) {
    if (keyword.removeOnly && context.insert) continue;
    if (runtime::StartsWithNoCase(text, keyword.head))
      return keyword.run(context, text + keyword.head.size());
  }
  return RunProgram(context, text);
}

}  // namespace

bool ExecuteCommand(CK_SLOT_ID slot, bool insert, const char* text, std::uint64_t wait, bool show,
                    bool terminate) {
  if (text == nullptr) text = "";
  runtime::TraceWrite("Watch - Execute %s command: %s", insert ? "insert" : "remove",
                      runtime::MaskedText(text).Text());
  try {
    return Dispatch({slot, insert, wait, show, terminate}, text);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool StartCommandProcess(const char* program, const char* arguments, std::uint64_t /*wait*/,
                         bool show, std::uint64_t& processId) {
  char path[runtime::kTextSize] = "";
  if (!runtime::CopyTextIfFits(path, runtime::ViewOf(program))) return false;
  std::uint64_t started = 0;
  const char* const executable = path[0] == '\0' ? nullptr : path;
  if (runtime::LaunchProcess(executable, arguments, runtime::kWaitNone, show, &started) == 0)
    return false;
  processId = started;
  return true;
}

bool WaitForParallelJobs(unsigned milliseconds) {
  constexpr unsigned kStepMilliseconds = 10;
  unsigned waited = 0;
  while (runningJobs.load(std::memory_order_acquire) != 0) {
    if (waited >= milliseconds) return false;
    ::usleep(kStepMilliseconds * 1000);
    waited += kStepMilliseconds;
  }
  return true;
}

}  // namespace qixx::watch
