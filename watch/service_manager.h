// Telling the service manager that started the process how it is, in the datagrams of sd_notify(3).
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "runtime/descriptor.h"

namespace qixx::watch {

/// Whoever listens at $NOTIFY_SOCKET. Nothing here waits: what the manager does not take is sent
/// again later, or dropped. Without the variable nothing is sent.
class ServiceManager {
 public:
  /// Nobody.
  ServiceManager() = default;
  /// The manager of the environment, whose variables are taken out: they are not meant for the
  /// programs that this one starts. While there is one thread only.
  [[nodiscard]] static ServiceManager TakeFromEnvironment();

  [[nodiscard]] bool IsThere() const { return socket_.IsOpen(); }

  /// The watch runs.
  void Ready();
  /// One line for people, sent when it is not the one before.
  void Status(std::string_view line);
  void Stopping();
  /// Says that the thread of the watch goes on, when it is time to; other threads say nothing. To
  /// be called between any two steps that may take long. Allocates nothing: a poll calls it behind
  /// the event that it has taken from the library.
  void Alive();
  /// The longest that may pass between two calls of Alive, in milliseconds.
  [[nodiscard]] unsigned LongestPause() const { return longestPause_; }

 private:
  bool Connect(std::string_view name);
  bool Send(std::string_view message) const;

  runtime::Descriptor socket_;
  sockaddr_un address_ = {};
  socklen_t addressLength_ = 0;
  pid_t thread_ = 0;
  bool isReadyUnsent_ = false;
  bool isStatusUnsent_ = false;
  std::string status_;         ///< the whole message
  std::int64_t interval_ = 0;  ///< between two signs of life, in milliseconds; 0 for none
  std::int64_t lastSign_ = 0;
  unsigned longestPause_ = UINT32_MAX;
};

/// The manager that started the process, asked for at the first call; never destroyed.
ServiceManager& SystemServiceManager();

}  // namespace qixx::watch
