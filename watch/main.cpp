// The program: its command line becomes one line for WatchMain.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "watch/card_reader.h"
#include "watch/logon_user.h"
#include "watch/parallel.h"
#include "watch/platform.h"
#include "watch/stop.h"
#include "watch/watch_main.h"

namespace {

constexpr const char* kHelp =
    "Usage: qixxwatch [OPTIONS] [COMMAND | config SECTION[|EXTRA...]]\n"
    "Runs configured commands when a smart card is inserted or removed.\n"
    "\n"
    "  -match \"TEXT\"          only cards with a certificate that matches\n"
    "  -wait \"IN|OUT\"         seconds to wait before insert and remove commands\n"
    "  -hide [insert|remove]  start programs hidden\n"
    "  -sync                  no removal before an insertion\n"
    "  -term                  end on removal what was started on insertion\n"
    "  -recognized            only cards whose token can be read\n"
    "  -simulate \"EVENT\"      run the commands of \"insert\" or \"remove\" once and end\n"
    "\n"
    "  -p PROGRAM -c FILE [-a ARGUMENTS] [-n ROUNDS] [-w SECONDS]\n"
    "                         start a program and write the logon values to a file\n"
    "\n"
    "  --help, --version      print this text, or the version, and end\n"
    "\n"
    "Without a command the entry Watch of section Command is used. See qixxwatch(1).\n";

/// Answers the two options that only inform; false for every other command line.
bool PrintInformation(int argc, char** argv) {
  if (argc != 2) return false;
  const std::string_view option(argv[1]);
  if (option == "--help") {
    std::fputs(kHelp, stdout);
    return true;
  }
  if (option == "--version") {
    std::puts("qixxwatch " QIXX_VERSION);
    return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace qixx;
  int result = EXIT_FAILURE;
  try {
    if (PrintInformation(argc, argv)) return EXIT_SUCCESS;
    watch::InstallStopHandlers();
    watch::StoppableClock clock;
    watch::PlatformLogonUser logonUser;
    const watch::Platform platform = {clock, watch::SystemCardReader(), logonUser};
    result = watch::WatchMain(0, 0, watch::JoinArguments(argc, argv), platform);
  } catch (...) {
    // Only memory running out comes here; ending is all that is left.
  }
  // A command that still runs may be inside a library, whose static objects must not go under it.
  if (!watch::WaitForParallelJobs(0)) ::_exit(result);
  return result;
}
