#include "watch/edit_in_time.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "runtime/clock.h"
#include "runtime/no_destructor.h"
#include "runtime/notice.h"
#include "runtime/scarce_means.h"
#include "runtime/secrets.h"
#include "runtime/sync.h"
#include "runtime/trace.h"
#include "watch/file_scope.h"
#include "watch/running_jobs.h"
#include "watch/service_manager.h"

namespace qixx::watch {
namespace {

/// Also where another file used the event's patience up.
constexpr std::int64_t kLeastPatience = 50;
/// Each has a thread.
constexpr std::size_t kMaxLate = 32;
constexpr timespec kLookPause = {0, 200'000};
/// What passes between two looks counts no longer: a process that was stopped did not wait.
constexpr std::int64_t kLongestLook = 1000;

enum class Answer { kNone, kFailed, kDone, kNoMemory };

struct PendingEdit {
  std::string path;
  EditKind kind;
  std::function<bool()> run = {};
  runtime::ThreadId askedBy;
  std::optional<RunningJob> job = {};  ///< until the answer is there
  bool isOutdated = false;             ///< another card has gone since; the main thread's
  bool wasScarce = false;              ///< said before the answer
  std::atomic<Answer> answer{Answer::kNone};
};

using EditPointer = std::shared_ptr<PendingEdit>;

/// The main thread's, which alone waits.
constinit std::int64_t patience = kFilePatience;
constinit std::atomic<unsigned> cardsGone{0};

/// The edits that were given up, one of a path.
struct LateEdits {
  runtime::CCritical lock;
  std::vector<EditPointer> all;
};

/// Never destroyed: they may run while the process ends.
LateEdits& Late() {
  static runtime::NoDestructor<LateEdits> edits;
  return *edits;
}

bool HasEnded(const PendingEdit& edit) {
  return edit.answer != Answer::kNone;
}

/// Null when there is none.
EditPointer FindLate(const std::string& path) {
  const runtime::CriticalScope hold(&Late().lock);
  const auto found = std::ranges::find(Late().all, path, &PendingEdit::path);
  return found == Late().all.end() ? nullptr : *found;
}

void ForgetLate(const EditPointer& edit) {
  const runtime::CriticalScope hold(&Late().lock);
  std::erase(Late().all, edit);
}

/// Whether nobody has a use for what it did.
bool IsDoneWith(const EditPointer& edit) {
  return HasEnded(*edit) && (edit->isOutdated || edit->kind == EditKind::kFill);
}

/// Makes room for one more, so that memory can run out no later. Returns how many still run.
std::size_t PrepareLate() {
  const runtime::CriticalScope hold(&Late().lock);
  std::vector<EditPointer>& all = Late().all;
  std::erase_if(all, IsDoneWith);
  all.reserve(all.size() + 1);
  return all.size() - static_cast<std::size_t>(std::ranges::count_if(
                          all, [](const EditPointer& edit) { return HasEnded(*edit); }));
}

void KeepLate(const EditPointer& edit) {
  const runtime::CriticalScope hold(&Late().lock);
  Late().all.push_back(edit);
}

// --- the thread of an edit ----------------------------------------------------------------------

/// Its trace lines are those of the command that waits for it.
void Run(PendingEdit& edit) {
  runtime::TraceOnBehalfOf(edit.askedBy);
  const runtime::ScarceMeans scarce;
  Answer answer = Answer::kNoMemory;
  try {
    answer = edit.run() ? Answer::kDone : Answer::kFailed;
  } catch (const std::bad_alloc&) {
  }
  edit.wasScarce = scarce.Any();
  edit.answer = answer;
  edit.job.reset();
}

void* RunOnThread(void* argument) {
  runtime::ThreadDetachSelf();
  const std::unique_ptr<const EditPointer> edit(static_cast<const EditPointer*>(argument));
  Run(**edit);
  return nullptr;
}

/// False without a thread.
bool Start(const EditPointer& edit) {
  auto argument = std::make_unique<EditPointer>(edit);
  const runtime::ScarceMeans scarce;
  if (runtime::ThreadCreate(&RunOnThread, argument.get()) == 0) {
    scarce.TakeBack();  // it is done all the same
    return false;
  }
  // The thread frees it.
  static_cast<void>(argument.release());
  return true;
}

// --- the thread that asks -----------------------------------------------------------------------

void Await(const PendingEdit& edit) {
  std::int64_t left = std::max(patience, kLeastPatience);
  while (!HasEnded(edit) && left > 0) {
    const std::int64_t begin = runtime::MonotonicMilliseconds();
    ::nanosleep(&kLookPause, nullptr);
    SystemServiceManager().Alive();
    const std::int64_t passed = std::min(runtime::MonotonicMilliseconds() - begin, kLongestLook);
    left -= passed;
    patience -= passed;
  }
}

bool GiveUp(const std::string& path) {
  runtime::ScarceMeans::Note(EAGAIN);
  const std::string shown = runtime::MaskSecrets(path);
  runtime::TraceWrite("Watch - No answer from '%s' in time, going on", shown.c_str());
  runtime::NotifyOnce("'" + shown + "' cannot be set: no answer in time");
  return false;
}

bool Tell(const PendingEdit& edit) {
  if (edit.wasScarce) runtime::ScarceMeans::Note(EAGAIN);
  if (edit.answer == Answer::kNoMemory) throw std::bad_alloc();
  return edit.answer == Answer::kDone;
}

bool RunInTime(const EditPointer& edit) {
  const std::size_t late = PrepareLate();
  if (late >= kMaxLate) return GiveUp(edit->path);
  if (!Start(edit)) return late == 0 ? edit->run() : GiveUp(edit->path);
  Await(*edit);
  if (HasEnded(*edit)) return Tell(*edit);
  KeepLate(edit);
  return GiveUp(edit->path);
}

/// What the main thread gave up comes first.
bool RunBehindLate(const std::string& path, const std::function<bool()>& edit) {
  constexpr std::int64_t kPauseMilliseconds = 10;
  if (const EditPointer late = FindLate(path)) {
    while (!HasEnded(*late)) runtime::SleepMilliseconds(kPauseMilliseconds);
    ForgetLate(late);  // what it did may be undone now
  }
  return edit();
}

}  // namespace

void BeginEventEdits(std::int64_t milliseconds) {
  patience = milliseconds;
  FileScope::BeginEvent();
}

void NoteCardGone() {
  ++cardsGone;
  const runtime::CriticalScope hold(&Late().lock);
  for (const EditPointer& edit : Late().all) edit->isOutdated = true;
}

unsigned CardsGone() {
  return cardsGone;
}

bool EditInTime(const std::string& path, EditKind kind, std::function<bool()> edit) {
  const bool isMainThread = ::gettid() == ::getpid();
  if (!isMainThread) return RunBehindLate(path, edit);
  if (const EditPointer late = FindLate(path)) {
    if (!HasEnded(*late)) return GiveUp(path);
    ForgetLate(late);
    const bool isSame = kind == late->kind && !IsDoneWith(late);
    if (isSame && late->answer == Answer::kDone) return true;
  }
  const EditPointer pending(new PendingEdit{
      .path = path, .kind = kind, .run = std::move(edit), .askedBy = runtime::ThreadSelf()});
  pending->job.emplace();
  return RunInTime(pending);
}

}  // namespace qixx::watch
