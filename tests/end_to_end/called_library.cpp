// The library that the "load " and "extern " commands of the tests call. Each entry point appends
// what it was given to the file that its argument text names, so a test sees the call.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void Append(const char* file, const char* text) {
  std::FILE* stream = std::fopen(file, "a");
  if (stream == nullptr) return;
  std::fputs(text, stream);
  std::fclose(stream);
}

char stayed[256];  // the file of Stay

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int Called(int zero, void* library, const char* arguments,
                                                  int reserved) {
  if (zero != 0 || library == nullptr || reserved != 0) return 1;
  Append(arguments, "called\n");
  return 0;
}

/// Does not return while a test runs, and tells of an end that does not leave it alone.
__attribute__((visibility("default"))) int Stay(int /*zero*/, void* /*library*/,
                                                const char* arguments, int /*reserved*/) {
  std::snprintf(stayed, sizeof stayed, "%s", arguments);
  std::atexit([] { Append(stayed, "ended\n"); });
  Append(arguments, "called\n");
  for (;;) ::sleep(1);
}

/// Ends its thread.
__attribute__((visibility("default"))) int Leave(int /*zero*/, void* /*library*/,
                                                 const char* /*arguments*/, int /*reserved*/) {
  ::pthread_exit(nullptr);
}

/// The argument text is "ANSWER -config FILE": the answer goes into the area.
__attribute__((visibility("default"))) int ReadCommand(const char* reader, const char* arguments,
                                                       char* area, int size) {
  if (reader == nullptr || size != 256) return 0;
  const std::size_t length = std::strcspn(arguments, " ");
  if (length == 0 || length >= 256) return 0;
  std::memcpy(area, arguments, length);
  area[length] = '\0';
  return 1;
}
}
