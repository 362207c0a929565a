// The library that the "load " and "extern " commands of the tests call.
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#pragma GCC visibility push(default)
extern "C" {

/// Does not return while a test runs, and tells of an end that does not leave it alone.
int Stay(int /*zero*/, void* /*library*/, const char* arguments, int /*reserved*/) {
  static const std::string file = arguments;
  std::atexit([] { std::ofstream(file, std::ios::app) << "ended\n"; });
  std::ofstream(file) << "called\n";
  for (;;) ::sleep(1);
}

/// Returns when the file is there.
int Wait(int /*zero*/, void* /*library*/, const char* arguments, int /*reserved*/) {
  while (::access(arguments, F_OK) != 0) ::usleep(10'000);
  return 1;
}

/// Ends its thread.
int Leave(int /*zero*/, void* /*library*/, const char* /*arguments*/, int /*reserved*/) {
  ::pthread_exit(nullptr);
}

/// The argument text is "ANSWER -config FILE": the answer goes into the area.
int ReadCommand(const char* reader, const char* arguments, char* area, int size) {
  const std::size_t length = std::strcspn(arguments, " ");
  if (reader == nullptr || size != 256 || length == 0 || length >= 256) return 0;
  std::memcpy(area, arguments, length);
  area[length] = '\0';
  return 1;
}
}
#pragma GCC visibility pop
