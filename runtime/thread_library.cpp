#include "runtime/thread_library.h"

#include <dlfcn.h>

namespace qixx::runtime {
namespace {

template <typename Function>
void Find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
}

ThreadLibrary LoadThreadLibrary() {
  ThreadLibrary functions;
#ifdef QIXX_THREAD_SANITIZER
  // The sanitizer must see every thread and lock, and its replacements stand in the global scope.
  void* const library = RTLD_DEFAULT;
#else
  // The plain name comes with development files only, the versioned one with every system.
  void* library = ::dlopen("libpthread.so", RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) library = ::dlopen("libpthread.so.0", RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) return functions;
#endif
  Find(library, "pthread_mutex_init", functions.mutexInit);
  Find(library, "pthread_mutex_destroy", functions.mutexDestroy);
  Find(library, "pthread_mutex_lock", functions.mutexLock);
  Find(library, "pthread_mutex_trylock", functions.mutexTryLock);
  Find(library, "pthread_mutex_unlock", functions.mutexUnlock);
  Find(library, "pthread_create", functions.create);
  Find(library, "pthread_kill", functions.kill);
  Find(library, "pthread_self", functions.self);
  Find(library, "pthread_detach", functions.detach);
  return functions;
}

}  // namespace

const ThreadLibrary& Threads() {
  static const ThreadLibrary functions = LoadThreadLibrary();
  return functions;
}

}  // namespace qixx::runtime
