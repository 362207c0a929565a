#include "watch/card_lock.h"

#include <new>

namespace qixx {

CCritical& CardLock() {
  // In static storage and never destroyed, because a command's thread may outlive the main one.
  alignas(CCritical) static unsigned char storage[sizeof(CCritical)];
  static CCritical* const lock = new (storage) CCritical;
  return *lock;
}

}  // namespace qixx
