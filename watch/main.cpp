// The program: its command line becomes one line for WatchMain.
#include <poll.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "pkcs11/function_call.h"
#include "pkcs11/wrapper.h"
#include "runtime/library_call.h"
#include "runtime/loader.h"
#include "runtime/notice.h"
#include "runtime/text.h"
#include "watch/card_reader.h"
#include "watch/extra_watchers.h"
#include "watch/people.h"
#include "watch/platform.h"
#include "watch/running_jobs.h"
#include "watch/service_manager.h"
#include "watch/stop.h"
#include "watch/watch_main.h"

namespace {

/// Whether the runtime of the language had room to set memory aside for what is thrown when there
/// is none left. Without it the first lack of memory would abort the process.
bool HasRoomToThrow() {
  constexpr std::size_t kSetAside = std::size_t{128} << 10;
  void* const volatile room = std::malloc(kSetAside);  // volatile, so that it is really asked for
  std::free(room);
  return room != nullptr;
}

/// The watcher that started an extra one starts it again.
int ResultWithoutMemory(int argc, char** argv) {
  using namespace qixx;
  const bool isExtra =
      argc > 1 && runtime::EqualsNoCase(argv[1], runtime::DropTrailingBlanks(watch::kChildMark));
  return isExtra ? EXIT_FAILURE : EXIT_SUCCESS;
}

int Watch(int argc, char** argv) {
  using namespace qixx::watch;
  InstallStopHandlers();
  // A slow card is a hang to the service manager only when a single call of the library is.
  ServiceManager& manager = SystemServiceManager();
  qixx::pkcs11::ListenToCalls([] { SystemServiceManager().Alive(); });
  StoppableClock clock;
  LogonUser logonUser;
  const Platform platform = {clock, SystemCardReader(), logonUser, manager};
  return WatchMain(0, 0, JoinArguments(argc, argv), platform);
}

/// Without the exit handlers and static destructors of the card's library, which might hang or
/// crash. The wrapper's is the one of ours that does something: it leaves a line in the trace.
void EndWatch([[maybe_unused]] int result) {
#ifndef QIXX_SANITIZED  // where leaks are looked for by an exit handler
  std::destroy_at(&qixx::pkcs11::Pkcs11());
  // A function that was called may have printed; nobody may read it any more.
  pollfd output = {STDOUT_FILENO, POLLOUT, 0};
  if (::poll(&output, 1, 0) > 0 && (output.revents & POLLOUT) != 0) std::fflush(stdout);
  ::_exit(result);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  using namespace qixx;
  if (!HasRoomToThrow()) {
    runtime::Notify({"not started: no memory"});
    return ResultWithoutMemory(argc, argv);
  }
  int result = EXIT_FAILURE;
  bool hasWatched = false;
  try {
    runtime::ContainTermination();
    const std::optional<int> code = watch::AnswerPeople(argc, argv, QIXX_VERSION);
    result = code.value_or(EXIT_SUCCESS);
    hasWatched = !code;
    if (hasWatched) result = Watch(argc, argv);
  } catch (...) {
    // Memory ran out. That is a failure while people are answered, and none of a watch.
    if (hasWatched) result = ResultWithoutMemory(argc, argv);
  }
  // A command that still runs may be inside a library, whose static objects must not go under it.
  if (!watch::WaitForJobs(0) || runtime::IsLoaderBroken()) ::_exit(result);
  if (hasWatched) EndWatch(result);
  return result;
}
