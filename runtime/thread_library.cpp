#include "runtime/thread_library.h"

#include <dlfcn.h>

#include <initializer_list>

#if defined(__SANITIZE_THREAD__)
#define QIXX_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QIXX_THREAD_SANITIZER 1
#endif
#endif

namespace qixx::runtime {
namespace {

/// Opens the threads library, null when there is none.
void* OpenThreadsLibrary() {
#if defined(QIXX_THREAD_SANITIZER)
  // The sanitizer must see every thread and lock, and its replacements stand in the global scope.
  return RTLD_DEFAULT;
#else
  // The plain name comes with development files only, the versioned one with every system.
  for (const char* name : {"libpthread.so", "libpthread.so.0"}) {
    if (void* library = ::dlopen(name, RTLD_NOW | RTLD_GLOBAL); library != nullptr) return library;
  }
  return nullptr;
#endif
}

constexpr bool HasThreadsLibrary([[maybe_unused]] const void* library) {
#if defined(QIXX_THREAD_SANITIZER)
  return true;
#else
  return library != nullptr;
#endif
}

template <typename Function>
void Find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
}

ThreadLibrary LoadThreadLibrary() {
  ThreadLibrary functions;
  void* library = OpenThreadsLibrary();
  if (!HasThreadsLibrary(library)) return functions;
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
