#include "watch/status.h"

#include <optional>

#include "runtime/text.h"
#include "watch/card_text.h"

namespace qixx::watch {
namespace {

std::string LocalTime(std::time_t time) {
  std::tm local = {};
  char text[sizeof "YYYY-MM-DD hh:mm:ss"] = "";
  if (::localtime_r(&time, &local) == nullptr) return {};
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

}  // namespace

std::string DescribeStatus(CardReader& card, CK_SLOT_ID connected, std::time_t since) {
  if (connected != kNoSlot) {
    std::string line = "Card in slot " + std::to_string(connected);
    if (const std::optional<SlotDescription> name = card.Description(connected)) {
      // A library's text: a line end in it would begin a message of its own.
      line += " (" + CleanCardText(runtime::DropTrailingBlanks(runtime::TextOf(*name))) + ")";
    }
    return line + ", connected since " + LocalTime(since);
  }
  if (!card.IsInitialised()) return "The PKCS#11 library is missing, or does not start";
  return card.HasReader() ? "No card" : "No reader";
}

}  // namespace qixx::watch
