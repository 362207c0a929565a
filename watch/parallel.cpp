#include "watch/parallel.h"

#include <atomic>
#include <memory>
#include <string>

#include "runtime/clock.h"
#include "runtime/sync.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/guard.h"
#include "watch/running_jobs.h"
#include "watch/stop.h"

namespace qixx::watch {
namespace {

/// Belongs to its thread from the moment that the thread runs.
struct ParallelJob {
  CardReader& card;
  WatchEvent event;
  std::string text;
  unsigned insertions;  ///< up to its event
  std::unique_ptr<RunningJob> running;
};

constinit std::atomic<unsigned> insertions{0};

// A removal's job that the system has no room for is tried so often, with pauses in milliseconds,
// but not beside the commands of the next card.
constexpr int kTries = 30;
constexpr unsigned kTryPause = 333;

void RunCommand(const ParallelJob& job) {
  if (job.event.IsInsert()) {
    RunGuarded([&job] { return ExecuteCommand(job.card, job.event, job.text); });
    return;
  }
  for (int left = kTries; !RunRemoveCommand(job.card, job.event, job.text); --left) {
    if (StopRequested()) NoteCutOffJob();
    if (left == 1 || StopRequested()) return;
    runtime::SleepMilliseconds(kTryPause);
    // The next card may have come during the pause.
    if (job.insertions != insertions) return;
  }
}

void* RunJob(void* argument) {
  runtime::ThreadDetachSelf();
  std::unique_ptr<ParallelJob> job(static_cast<ParallelJob*>(argument));
  // Counts up to the end, also of a job whose command ends the thread.
  const std::unique_ptr<RunningJob> running = std::move(job->running);
  runtime::TraceWrite("Watch - Thread execute command ...");
  RunCommand(*job);
  job.reset();
  runtime::TraceWrite("Watch - Thread execute command ... done");
  return nullptr;
}

}  // namespace

bool RunParallel(CardReader& card, const WatchEvent& event, std::string_view text) {
  if (text.size() > kMaxParallelCommand) return false;
  std::unique_ptr<ParallelJob> job(
      new ParallelJob{card, event, std::string(text), insertions, std::make_unique<RunningJob>()});
  if (runtime::ThreadCreate(&RunJob, job.get()) == 0) return false;
  // The thread frees it.
  static_cast<void>(job.release());
  return true;
}

void ForgetOwedParallelJobs() {
  ++insertions;
}

}  // namespace qixx::watch
