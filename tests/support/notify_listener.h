// The socket of a service manager, with what it was told.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/eventually.h"

namespace qixx::testing {

class NotifyListener {
 public:
  /// A path, or behind a '@' a name that is in no file system.
  explicit NotifyListener(const std::string& name) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name.starts_with('@')) address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), length), 0) << name;
  }
  ~NotifyListener() { ::close(socket_); }
  NotifyListener(const NotifyListener&) = delete;

  /// What came since the last question, signs of life apart; polls until it is so much.
  std::vector<std::string> Take(std::size_t count = 0) {
    std::vector<std::string> messages;
    EXPECT_TRUE(Eventually([&] {
      char buffer[512];
      for (ssize_t got; (got = ::recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;) {
        messages.emplace_back(buffer, static_cast<std::size_t>(got));
        std::erase(messages, "WATCHDOG=1");
      }
      return messages.size() >= count;
    }));
    return messages;
  }

 private:
  const int socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

}  // namespace qixx::testing
