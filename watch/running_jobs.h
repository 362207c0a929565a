// What runs beside the loop, on threads of its own. All operations may be called from any thread.
#pragma once

namespace qixx::watch {

/// Counts as running while it exists.
class RunningJob {
 public:
  RunningJob();
  ~RunningJob();
  RunningJob(const RunningJob&) = delete;
  RunningJob& operator=(const RunningJob&) = delete;
};

/// For one that ends without having run, because the process is to stop.
void NoteCutOffJob();

/// How many there are now.
[[nodiscard]] unsigned RunningJobs();
/// Whether none still runs, and none was cut off.
[[nodiscard]] bool HaveJobsRun();
/// Waits up to `milliseconds` for all to end; false when some still run.
bool WaitForJobs(unsigned milliseconds);

}  // namespace qixx::watch
