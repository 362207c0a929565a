// What a watcher stands on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "watch/card_reader.h"
#include "watch/clock.h"
#include "watch/service_manager.h"

namespace qixx::watch {

/// spare: the description of the slot that a user's card was in, and its certificate.
struct LogonRecord {
  SlotDescription identity = {};
  std::vector<std::uint8_t> certificate;
};

/// spare: what the platform is asked about the logon user. This one does not tell who is logged on,
/// and its credential store keeps nothing; tests hand in answers of their own.
class LogonUser {
 public:
  virtual ~LogonUser() = default;
  /// The name of the user who is logged on; empty is nobody.
  [[nodiscard]] virtual std::optional<std::string> Name() { return std::nullopt; }
  [[nodiscard]] virtual std::optional<LogonRecord> Record(const std::string& user);
};

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
