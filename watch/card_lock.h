// One user of the card at a time.
//
// The PKCS#11 library is initialised without locking, so every use of it is made under this
// recursive lock: by the loop around its own calls and by commands on threads of their own. It is
// never held while sleeping or while an event's commands run. Order: card lock before trace lock.
#pragma once

#include "runtime/sync.h"

namespace qixx::watch {

/// The process-wide lock; never destroyed.
runtime::CCritical& CardLock();

/// Holds the card for a scope.
class CardScope {
 public:
  CardScope() : scope_(&CardLock()) {}

 private:
  runtime::CriticalScope scope_;
};

}  // namespace qixx::watch
