// What a watcher stands on.
#pragma once

#include "watch/card_reader.h"
#include "watch/clock.h"
#include "watch/logon_user.h"
#include "watch/service_manager.h"

namespace qixx::watch {

/// The machine around a watcher, handed down from the entry; tests put in parts of their own. The
/// card reader has to outlive all commands, also those on threads of their own.
struct Platform {
  Clock& clock;
  CardReader& card;
  LogonUser& logonUser;
  ServiceManager& manager;
};

/// WatchWait in steps that are short enough for the service manager, which is told of each.
WakeUp WatchPause(const Platform& platform, unsigned milliseconds, int descriptor = kNoDescriptor);

}  // namespace qixx::watch
