#include "runtime/journal.h"

#include <endian.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "runtime/descriptor.h"

namespace qixx::runtime {
namespace {

// The priorities are those of syslog. A message that is named without '=' has its length in front,
// so whatever stands in it can be no other field.
constexpr std::string_view kInformation = "PRIORITY=6\nSYSLOG_IDENTIFIER=qixxwatch\nMESSAGE\n";
constexpr std::string_view kWarning = "PRIORITY=4\nSYSLOG_IDENTIFIER=qixxwatch\nMESSAGE\n";

bool TellsOfFailure(std::string_view message) {
  constexpr std::array<std::string_view, 4> kWords = {"FAILED", "Failed to ", "WARNING",
                                                      "Exception in "};
  return std::ranges::any_of(kWords, [message](std::string_view word) {
    return message.find(word) != std::string_view::npos;
  });
}

iovec Part(std::string_view text) {
  return {.iov_base = const_cast<char*>(text.data()), .iov_len = text.size()};
}

}  // namespace

void SendToJournal(std::string_view message) {
  const Descriptor out(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!out.IsOpen()) return;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::string_view(kJournalSocket).copy(address.sun_path, sizeof address.sun_path - 1);
  std::uint64_t length = htole64(message.size());
  iovec parts[] = {Part(TellsOfFailure(message) ? kWarning : kInformation),
                   {.iov_base = &length, .iov_len = sizeof length},
                   Part(message),
                   Part("\n")};
  msghdr datagram = {};
  datagram.msg_name = &address;
  datagram.msg_namelen = sizeof address;
  datagram.msg_iov = parts;
  datagram.msg_iovlen = std::size(parts);
  static_cast<void>(::sendmsg(out.Get(), &datagram, MSG_DONTWAIT | MSG_NOSIGNAL) > 0);
}

}  // namespace qixx::runtime
