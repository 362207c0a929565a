#include "watch/running_jobs.h"

#include <atomic>

#include "runtime/clock.h"

namespace qixx::watch {
namespace {

constinit std::atomic<unsigned> runningJobs{0};
constinit std::atomic<bool> wasCutOff{false};

}  // namespace

RunningJob::RunningJob() {
  ++runningJobs;
}

RunningJob::~RunningJob() {
  --runningJobs;
}

void NoteCutOffJob() {
  wasCutOff = true;
}

unsigned RunningJobs() {
  return runningJobs;
}

bool HaveJobsRun() {
  return runningJobs == 0 && !wasCutOff;
}

bool WaitForJobs(unsigned milliseconds) {
  constexpr unsigned kStepMilliseconds = 10;
  for (unsigned waited = 0; runningJobs != 0; waited += kStepMilliseconds) {
    if (waited >= milliseconds) return false;
    runtime::SleepMilliseconds(kStepMilliseconds);
  }
  return true;
}

}  // namespace qixx::watch
