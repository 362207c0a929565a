#include "watch/card_lock.h"

#include "runtime/lasting.h"

namespace qixx {

CCritical& CardLock() {
  // In static storage and never destroyed, because a command's thread may outlive the main one.
  static Lasting<CCritical> lock;
  return *lock;
}

}  // namespace qixx
