// The system's journal, by its native protocol: one datagram for each message.
#pragma once

#include <string_view>

namespace qixx::runtime {

inline constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

/// Sends a message, which may have several lines. It is a warning where it tells of a failure, else
/// information. One that the journal does not take at once is lost, as all are where there is no
/// journal. Allocates nothing, takes no lock, and leaves no descriptor open.
void SendToJournal(std::string_view message);

}  // namespace qixx::runtime
