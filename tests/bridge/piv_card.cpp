#include "tests/bridge/piv_card.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <numeric>
#include <optional>

namespace qixx::testing {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr std::string_view kPivName = "\xA0\x00\x00\x03\x08"sv;
constexpr std::string_view kDone = "\x90\x00"sv;
constexpr std::string_view kNotFound = "\x6A\x82"sv;
constexpr std::string_view kNotSupported = "\x6D\x00"sv;
constexpr std::string_view kTriesLeft = "\x63\xC3"sv;

constexpr std::string_view kCertificateTag = "\x5F\xC1\x05"sv;
constexpr std::string_view kHolderTag = "\x5F\xC1\x02"sv;
constexpr std::string_view kDiscoveryTag = "\x7E"sv;

std::string Element(std::string_view tag, std::string_view value) {
  std::string element(tag);
  if (value.size() > 0xFF) {
    element += {'\x82', static_cast<char>(value.size() >> 8)};
  } else if (value.size() > 0x7F) {
    element += '\x81';
  }
  return element + static_cast<char>(value.size()) + std::string(value);
}

std::string HolderIdentifier() {
  return Element("\x53", Element("\x30", std::string(25, '\x11')) +
                             Element("\x34", std::string(16, '\x22')) +
                             Element("\x35", "20351231") + "\x3E\x00\xFE\x00"s);
}

std::string CertificateObject(const std::string& certificate) {
  return Element("\x53", Element("\x70", certificate) + "\x71\x01\x00\xFE\x00"s);
}

bool Receive(int socket, char* data, std::size_t size) {
  while (size != 0) {
    // An acknowledgement held back for the next answer costs 40 ms, which no card does.
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    const ssize_t got = ::recv(socket, data, size, 0);
    if (got <= 0) return false;
    data += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

/// A message: its length in two bytes, most significant first, then itself.
std::optional<std::string> ReceiveMessage(int socket) {
  std::array<char, 2> head{};
  if (!Receive(socket, head.data(), head.size())) return {};
  std::string message(
      static_cast<std::uint8_t>(head[0]) * 256U + static_cast<std::uint8_t>(head[1]), '\0');
  if (!Receive(socket, message.data(), message.size())) return {};
  return message;
}

bool SendMessage(int socket, const std::string& text) {
  const std::string message =
      std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size())} + text;
  return ::send(socket, message.data(), message.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(message.size());
}

int Connect(int port) {
  const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    return made;
  ::close(made);
  return -1;
}

}  // namespace

std::string PivCard::AnswerToReset() {
  // T=1, ten historical bytes, check character.
  std::string answer = "\x3B\x8A\x80\x01"s + "Soft card ";
  answer += std::accumulate(answer.begin() + 1, answer.end(), '\0',
                            [](char sum, char c) { return static_cast<char>(sum ^ c); });
  return answer;
}

std::string PivCard::Answer(std::string_view command) {
  ++counters_.commands;
  if (command.size() < 4) return std::string(kNotSupported);
  const std::size_t length =
      command.size() > 5
          ? std::min<std::size_t>(static_cast<std::uint8_t>(command[4]), command.size() - 5)
          : 0;
  const std::string_view data = command.substr(std::min<std::size_t>(5, command.size()), length);
  switch (static_cast<std::uint8_t>(command[1])) {
    case 0xA4:
      return Select(data);
    case 0xC0:
      return Hand(std::move(rest_), 256);
    case 0xCB:
      return GetData(data);
    case 0x20:  // without data it asks for the tries that are left
      if (!data.empty()) ++counters_.pins;
      return std::string(kTriesLeft);
    case 0x24:
    case 0x2C:
      ++counters_.pins;
      return std::string(kNotSupported);
    case 0xDB:
    case 0x47:
    case 0x87:
      ++counters_.writes;
      return std::string(kNotSupported);
    default:
      return std::string(kNotSupported);
  }
}

std::string PivCard::Select(std::string_view name) {
  if (certificate_.empty() || !name.starts_with(kPivName)) return std::string(kNotFound);
  return Hand(Element("\x61", Element("\x4F", "\x00\x00\x10\x00\x01\x00"sv) +
                                  Element("\x79", Element("\x4F", kPivName))),
              256);
}

std::string PivCard::GetData(std::string_view tag) {
  if (tag.size() < 2 || certificate_.empty()) return std::string(kNotFound);
  tag.remove_prefix(2);  // 5C and its length
  if (tag == kDiscoveryTag) {
    return Hand("\x7E\x12\x4F\x0B\xA0\x00\x00\x03\x08\x00\x00\x10\x00\x01\x00\x5F\x2F\x02\x40\x00"s,
                256);
  }
  if (tag == kHolderTag) return Hand(HolderIdentifier(), 256);
  if (tag != kCertificateTag) return std::string(kNotFound);
  ++counters_.certificateReads;
  return Hand(CertificateObject(certificate_), 256);
}

std::string PivCard::Hand(std::string data, std::size_t expected) {
  if (data.size() <= expected) return data + std::string(kDone);
  rest_ = data.substr(expected);
  data.resize(expected);
  return data + '\x61' + static_cast<char>(std::min<std::size_t>(rest_.size(), 256));
}

InsertedCard::InsertedCard(int port, const std::string& certificate, Options options)
    : card_(certificate, counters_), options_(options), socket_(Connect(port)) {
  if (IsIn()) thread_ = std::thread(&InsertedCard::Serve, this);
}

InsertedCard::~InsertedCard() {
  if (!IsIn()) return;
  ::shutdown(socket_, SHUT_RDWR);
  thread_.join();
  ::close(socket_);
}

void InsertedCard::Serve() {
  while (const std::optional<std::string> message = ReceiveMessage(socket_)) {
    if (message->size() == 1) {
      // 0 off, 1 on, 2 reset; 4 asks for the answer to reset.
      if (message->front() == 1 || message->front() == 2) ++counters_.resets;
      if (message->front() == 4 && !SendMessage(socket_, PivCard::AnswerToReset())) break;
      continue;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(options_.delay));
    const std::string answer = card_.Answer(*message);
    if (options_.pulledWhileRead && counters_.certificateReads != 0) break;
    if (!SendMessage(socket_, answer)) break;
  }
  ::shutdown(socket_, SHUT_RDWR);
  counters_.gone = true;
}

}  // namespace qixx::testing
