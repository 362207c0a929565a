// The library that the loader tests find, open and call. It is linked under the name of the
// product's main library, so that it answers for that one once it is loaded.
#include <cstring>

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED int EntryAdmin(int zero, void* library, const char* arguments, int reserved) {
  if (zero != 0 || library == nullptr || reserved != 0) return -2;
  return static_cast<int>(std::strlen(arguments));
}
EXPORTED int RunCommand(int /*zero*/, void* /*library*/, const char* arguments, int /*reserved*/) {
  // The copy is the function's to spoil.
  std::memset(const_cast<char*>(arguments), '#', std::strlen(arguments));
  return 0;
}
