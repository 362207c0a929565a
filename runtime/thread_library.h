// The POSIX threads library, which is not linked but loaded at run time.
#pragma once

#include <pthread.h>

#include <csignal>

namespace qixx::runtime {

/// The functions of the library; one that is not found is null.
struct ThreadLibrary {
  decltype(&::pthread_mutex_init) mutexInit = nullptr;
  decltype(&::pthread_mutex_destroy) mutexDestroy = nullptr;
  decltype(&::pthread_mutex_lock) mutexLock = nullptr;
  decltype(&::pthread_mutex_trylock) mutexTryLock = nullptr;
  decltype(&::pthread_mutex_unlock) mutexUnlock = nullptr;
  decltype(&::pthread_create) create = nullptr;
  decltype(&::pthread_kill) kill = nullptr;
  decltype(&::pthread_self) self = nullptr;
  decltype(&::pthread_detach) detach = nullptr;
};

/// Loaded on first need, tried once whatever comes of it, and never unloaded. Any thread may ask.
[[nodiscard]] const ThreadLibrary& Threads();

}  // namespace qixx::runtime
