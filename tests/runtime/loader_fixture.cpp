// The library that the loader tests find, open and call.
#include <cstring>

extern "C" int RunCommand(int /*zero*/, void* /*library*/, const char* arguments, int /*last*/) {
  // The copy is the function's to spoil.
  std::memset(const_cast<char*>(arguments), '#', std::strlen(arguments));
  return 0;
}

extern "C" int Throw(int /*zero*/, void* /*library*/, const char* arguments, int /*last*/) {
  throw arguments;
}
