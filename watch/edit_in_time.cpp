#include "watch/edit_in_time.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <new>
#include <utility>

#include "runtime/clock.h"
#include "runtime/no_destructor.h"
#include "runtime/notice.h"
#include "runtime/scarce_means.h"
#include "runtime/secrets.h"
#include "runtime/sync.h"
#include "runtime/trace.h"
#include "watch/file_scope.h"
#include "watch/running_jobs.h"

namespace qixx::watch {
namespace {

constexpr timespec kLookPause = {0, 200'000};
/// What waits for a file system is held in memory; more of it is refused.
constexpr std::size_t kMaxWaiting = 256;

/// The main thread's, which alone waits.
constinit std::int64_t patience = kFilePatience;

enum class Answer { kNone, kFailed, kDone, kNoMemory };

struct PendingEdit {
  std::function<bool()> run;
  runtime::ThreadId askedBy;
  RunningJob job;
  bool wasScarce = false;  ///< said before the answer
  std::atomic<Answer> answer{Answer::kNone};
};

using EditPointer = std::shared_ptr<PendingEdit>;

/// The edits of one path. Its thread runs one after the other and ends behind the last.
struct EditQueue {
  std::string path;
  std::list<EditPointer> edits;  ///< the first one runs
  bool isLate = false;           ///< somebody gave up to wait
};

struct EditQueues {
  runtime::CCritical lock;
  std::list<EditQueue> all;
};

/// Never destroyed: a file system may answer while the process ends.
EditQueues& Queues() {
  static runtime::NoDestructor<EditQueues> queues;
  return *queues;
}

// --- the thread of a queue ----------------------------------------------------------------------

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
}

EditPointer FirstEdit(const EditQueue& queue) {
  const runtime::CriticalScope hold(&Queues().lock);
  return queue.edits.front();
}

/// The one behind the first, which is done. Null at the end of the queue, which is no more then.
EditPointer NextEdit(EditQueue& queue) {
  const runtime::CriticalScope hold(&Queues().lock);
  queue.edits.pop_front();
  if (!queue.edits.empty()) return queue.edits.front();
  std::erase_if(Queues().all, [&queue](const EditQueue& other) { return &other == &queue; });
  return nullptr;
}

void* RunQueue(void* argument) {
  runtime::ThreadDetachSelf();
  EditQueue& queue = *static_cast<EditQueue*>(argument);
  for (EditPointer edit = FirstEdit(queue); edit != nullptr; edit = NextEdit(queue)) Run(*edit);
  return nullptr;
}

// --- the thread that asks -----------------------------------------------------------------------

EditQueue* Find(const std::string& path) {
  std::list<EditQueue>& all = Queues().all;
  const auto found = std::ranges::find(all, path, &EditQueue::path);
  return found == all.end() ? nullptr : &*found;
}

/// Makes the queue of a path and its thread. False without a thread.
bool Begin(const std::string& path, const EditPointer& edit) {
  std::list<EditQueue> made(1);
  made.front().path = path;
  made.front().edits.push_back(edit);
  std::list<EditQueue>& all = Queues().all;
  all.splice(all.begin(), made);
  if (runtime::ThreadCreate(&RunQueue, &all.front()) != 0) return true;
  all.pop_front();
  return false;
}

enum class Place { kNext, kBehindLate, kNone, kFull };

Place Join(const std::string& path, const EditPointer& edit) {
  const runtime::CriticalScope hold(&Queues().lock);
  EditQueue* const queue = Find(path);
  if (queue == nullptr) return Begin(path, edit) ? Place::kNext : Place::kNone;
  if (queue->edits.size() >= kMaxWaiting) return Place::kFull;
  queue->edits.push_back(edit);
  return queue->isLate ? Place::kBehindLate : Place::kNext;
}

void Await(const PendingEdit& edit) {
  while (edit.answer == Answer::kNone && patience > 0) {
    const std::int64_t begin = runtime::MonotonicMilliseconds();
    ::nanosleep(&kLookPause, nullptr);
    patience -= runtime::MonotonicMilliseconds() - begin;
  }
}

bool GiveUp(const std::string& path) {
  {
    const runtime::CriticalScope hold(&Queues().lock);
    if (EditQueue* const queue = Find(path)) queue->isLate = true;
  }
  const std::string shown = runtime::MaskSecrets(path);
  runtime::TraceWrite("Watch - No answer from '%s' in time, going on", shown.c_str());
  runtime::NotifyOnce("'" + shown + "' cannot be set: no answer in time");
  return false;
}

}  // namespace

bool EditInTime(const std::string& path, std::function<bool()> edit) {
  const bool isMainThread = ::gettid() == ::getpid();
  if (!isMainThread) return edit();
  const EditPointer pending(new PendingEdit{std::move(edit), runtime::ThreadSelf(), {}, {}, {}});
  switch (Join(path, pending)) {
    case Place::kNone:
      return pending->run();
    case Place::kNext:
      Await(*pending);
      break;
    case Place::kBehindLate:
    case Place::kFull:
      break;
  }
  if (pending->answer == Answer::kNone) return GiveUp(path);
  if (pending->wasScarce) runtime::ScarceMeans::Note(EAGAIN);
  if (pending->answer == Answer::kNoMemory) throw std::bad_alloc();
  return pending->answer == Answer::kDone;
}

void BeginEventOfFiles(std::int64_t milliseconds) {
  patience = milliseconds;
  FileScope::BeginEvent();
}

}  // namespace qixx::watch
