// A PIV card in software (NIST SP 800-73-4), enough of it for a middleware to bind it and to read
// the authentication certificate, in a virtual reader of vpcd for as long as the object lives.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>

namespace qixx::testing {

using namespace std::string_literals;
using namespace std::string_view_literals;

/// The first reader's port; each further reader has the next one.
inline constexpr int kFirstReaderPort = 35963;

class InsertedCard {
 public:
  /// In the port's reader. `certificate` is DER; without, the card knows no application. It thinks
  /// about each command for `delay` milliseconds.
  InsertedCard(int port, std::string certificate, int delay = 0)
      : certificate_(std::move(certificate)), delay_(delay), socket_(Connect(port)) {
    if (IsIn()) thread_ = std::thread(&InsertedCard::Serve, this);
  }
  ~InsertedCard() {
    if (!IsIn()) return;
    ::shutdown(socket_, SHUT_RDWR);
    thread_.join();
    ::close(socket_);
  }

  /// False when there is no such reader.
  [[nodiscard]] bool IsIn() const { return socket_ >= 0; }

 private:
  static constexpr std::string_view kPivName = "\xA0\x00\x00\x03\x08"sv;
  static constexpr std::string_view kCertificateTag = "\x5F\xC1\x05"sv;
  static constexpr std::size_t kLongestAnswer = 256;

  static std::string TwoBytes(std::size_t number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
  }
  /// An element whose length stands in two bytes, however short it is.
  static std::string Element(std::string_view tag, const std::string& value) {
    return std::string(tag) + '\x82' + TwoBytes(value.size()) + value;
  }

  /// A message: its length in two bytes, most significant first, then itself.
  [[nodiscard]] bool Receive(std::string& message) const {
    // An acknowledgement held back for the next answer costs 40 ms, which no card does.
    const int on = 1;
    ::setsockopt(socket_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    std::uint16_t size = 0;
    if (::recv(socket_, &size, sizeof size, MSG_WAITALL) != sizeof size) return false;
    message.resize(ntohs(size));
    return ::recv(socket_, message.data(), message.size(), MSG_WAITALL) == std::ssize(message);
  }
  [[nodiscard]] bool Send(const std::string& text) const {
    const std::string message = TwoBytes(text.size()) + text;
    return ::send(socket_, message.data(), message.size(), MSG_NOSIGNAL) == std::ssize(message);
  }

  static int Connect(int port) {
    const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(made, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return made;
    ::close(made);
    return -1;
  }

  void Serve() {
    for (std::string message; Receive(message);) {
      if (message.size() == 1) {
        // On, off or reset, which have no answer; 4 asks for the answer to reset.
        if (message[0] == 4 && !Send("\x3B\x80\x80\x01\x01")) break;
        continue;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(delay_));
      if (!Send(Answer(message))) break;
    }
    ::shutdown(socket_, SHUT_RDWR);
  }

  std::string Answer(std::string_view command) {
    const std::uint8_t instruction = command.size() < 4 ? 0 : static_cast<std::uint8_t>(command[1]);
    const std::string_view data =
        command.size() > 5 ? command.substr(5, static_cast<std::uint8_t>(command[4])) : ""sv;
    if (instruction == 0xA4 && !certificate_.empty() && data.starts_with(kPivName)) {  // select
      return Hand(Element("\x61", Element("\x4F", "\x00\x00\x10\x00\x01\x00"s) +
                                      Element("\x79", Element("\x4F", std::string(kPivName)))));
    }
    if (instruction == 0xC0) return Hand(std::move(rest_));  // get response
    if (instruction == 0xCB && !certificate_.empty() && data.ends_with(kCertificateTag)) {
      return Hand(Element("\x53", Element("\x70", certificate_) + "\x71\x01\x00\xFE\x00"s));
    }
    if (instruction == 0xA4 || instruction == 0xCB) return "\x6A\x82";  // not found
    if (instruction == 0x20 && data.empty()) return "\x63\xC3";         // how many tries are left
    return "\x6D\x00"s;
  }

  std::string Hand(std::string data) {
    if (data.size() <= kLongestAnswer) return data + "\x90\x00"s;
    rest_ = data.substr(kLongestAnswer);
    data.resize(kLongestAnswer);
    return data + '\x61' + static_cast<char>(std::min(rest_.size(), kLongestAnswer));
  }

  const std::string certificate_;
  const int delay_;
  std::string rest_;  ///< of an answer that is fetched piece by piece
  int socket_;
  std::thread thread_;
};

}  // namespace qixx::testing
