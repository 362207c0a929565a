#include "watch/card_lock.h"

#include "runtime/lasting.h"

namespace qixx::watch {

runtime::CCritical& CardLock() {
  // In static storage and never destroyed, because a command's thread may outlive the main one.
  static runtime::Lasting<runtime::CCritical> lock;
  return *lock;
}

}  // namespace qixx::watch
