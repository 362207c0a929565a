// The library that the loader tests find, open and call. It is linked under the name of the
// product's main library, so that it answers for that one once it is loaded.
#include <cstddef>
#include <cstring>

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED char lastArguments[256];
EXPORTED int callCount;
char lastArguments[256] = "";
int callCount = 0;

namespace {

int Record(int zero, void* library, const char* arguments, int reserved) {
  if (zero != 0 || library == nullptr || reserved != 0) return -2;
  ++callCount;
  std::strncpy(lastArguments, arguments, sizeof lastArguments - 1);
  return 42;
}

}  // namespace

EXPORTED int RunCommand(int zero, void* library, char* arguments, int reserved) {
  const int result = Record(zero, library, arguments, reserved);
  if (arguments[0] != '\0') arguments[0] = '#';  // the copy is the function's to spoil
  return result;
}
EXPORTED int EntryAdmin(int zero, void* library, const char* arguments, int reserved) {
  return Record(zero, library, arguments, reserved);
}
