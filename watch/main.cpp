// The program: its command line becomes one line for WatchMain.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "runtime/text.h"
#include "watch/command.h"
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
  int result = EXIT_FAILURE;
  try {
    if (PrintInformation(argc, argv)) return EXIT_SUCCESS;
    qixx::watch::InstallStopHandlers();
    char line[qixx::runtime::kLineSize] = {};
    qixx::watch::JoinArguments(argc, argv, line);
    result = qixx::watch::WatchMain(0, 0, line);
  } catch (...) {
    // Only memory running out comes here; ending is all that is left.
  }
  // A command that still runs may be inside a library, whose static objects must not go under it.
  if (!qixx::watch::WaitForParallelJobs(0)) ::_exit(result);
  return result;
}
