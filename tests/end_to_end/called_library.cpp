// The library that the "load " and "extern " commands of the tests call. Each entry point appends
// what it was given to the file that its argument text names, so a test sees the call.
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

void Append(const std::string& file, const char* text) {
  std::ofstream(file, std::ios::app) << text;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int Called(int zero, void* library, const char* arguments, int reserved) {
  if (zero != 0 || library == nullptr || reserved != 0) return 1;
  Append(arguments, "called\n");
  return 0;
}

/// Does not return while a test runs, and tells of an end that does not leave it alone.
int Stay(int /*zero*/, void* /*library*/, const char* arguments, int /*reserved*/) {
  static const std::string file = arguments;
  std::atexit([] { Append(file, "ended\n"); });
  Append(file, "called\n");
  for (;;) ::sleep(1);
}

/// Comes back, and stays in the process to its end, where it would have its word.
int Remain(int /*zero*/, void* /*library*/, const char* arguments, int /*reserved*/) {
  static const std::string file = arguments;
  Dl_info own;
  if (::dladdr(&file, &own) == 0) return 1;
  if (::dlopen(own.dli_fname, RTLD_NOW | RTLD_NODELETE) == nullptr) return 1;
  std::atexit([] { Append(file, "ended\n"); });
  return 0;
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
