// spare: the logon variant of the slot loop follows the card of the user who is logged on. This
// platform does not tell who that is, so a run ends at once.
#include <algorithm>

#include "runtime/files.h"
#include "runtime/trace.h"
#include "watch/event_handlers.h"
#include "watch/rounds.h"
#include "watch/slot_loop.h"

namespace qixx::watch {
namespace {

// Pauses between two rounds, in milliseconds.
constexpr unsigned kTrackedPause = 333;
constexpr unsigned kSearchPause = 999;

/// More pending events than this are left for the next round, so that a library that never runs out
/// of them cannot hold the loop.
constexpr int kMaxEventsPerRound = 1024;

struct LogonSlot {
  CK_SLOT_ID slot = kNoSlot;
  std::vector<std::uint8_t> certificate;
};

class LogonWatch {
 public:
  LogonWatch(CWatchOptions& record, const Platform& platform, std::string user)
      : record_(record), platform_(platform), card_(platform.card), user_(std::move(user)) {}

  static constexpr bool kWakesEarly = false;

  bool Round(bool initialisedLate) {
    if (tracked_.slot != kNoSlot) {
      FollowSlot(initialisedLate);
    } else {
      SearchSlot(initialisedLate);
    }
    return false;
  }
  [[nodiscard]] std::string Status() const {
    return tracked_.slot != kNoSlot ? "The card that was used to log on is in" : "No card";
  }
  [[nodiscard]] unsigned Pause() const {
    return tracked_.slot != kNoSlot ? kTrackedPause : kSearchPause;
  }

 private:
  /// A library that came up late does not report what went before.
  void FollowSlot(bool initialisedLate) {
    if (initialisedLate && !HoldsCertificate()) return ForgetSlot();
    for (int taken = 0; taken < kMaxEventsPerRound; ++taken) {
      const PolledEvent polled = card_.TakeEvent();
      const bool isToAsk = polled.initialisedAgain || polled.slot == tracked_.slot;
      if (isToAsk && !HoldsCertificate()) return ForgetSlot();
      if (!polled.slot) return;
    }
  }
  void ForgetSlot() {
    runtime::TraceWrite("Watch - Logon slot %d removed", static_cast<int>(tracked_.slot));
    runtime::ResetStoredCredential(user_);
    OnRemoveEvent(record_, tracked_.slot, platform_);
    tracked_ = {};
  }
  [[nodiscard]] bool HoldsCertificate() const {
    return card_.ShowsToken(tracked_.slot) &&
           card_.HoldsCertificate(tracked_.slot, tracked_.certificate);
  }

  static bool HasNews(const PolledEvent& polled) { return polled.slot || polled.initialisedAgain; }
  /// The first slot whose description equals the recorded one, kNoSlot when none does. Nothing when
  /// the question cannot be answered.
  std::optional<LogonSlot> FindLogonSlot() {
    std::optional<LogonRecord> record = platform_.logonUser.Record(user_);
    if (!record) return std::nullopt;
    const auto found = std::ranges::find_if(slots_, [this, &record](CK_SLOT_ID slot) {
      return card_.Description(slot) == record->identity;
    });
    return LogonSlot{found == slots_.end() ? kNoSlot : *found, std::move(record->certificate)};
  }
  void SearchSlot(bool initialisedLate) {
    if (initialisedLate || slots_.empty() || HasNews(card_.TakeEvent())) {
      slots_ = card_.SlotsWithToken();
    }
    std::optional<LogonSlot> found = FindLogonSlot();
    if (!found) return;
    if (found->slot != kNoSlot) {
      runtime::TraceWrite("Watch - Logon slot %d inserted", static_cast<int>(found->slot));
      OnInsertEvent(record_, found->slot, platform_);
      tracked_ = *std::move(found);
      // The events taken from now on do not keep the list up to date.
      slots_.clear();
    } else {
      runtime::TraceWrite("Watch - Logon slot not found");
      runtime::ResetStoredCredential(user_);
      OnRemoveEvent(record_, kNoSlot, platform_);
    }
  }

  CWatchOptions& record_;
  const Platform& platform_;
  CardReader& card_;
  std::string user_;
  LogonSlot tracked_;
  std::vector<CK_SLOT_ID> slots_;  ///< those with a token, while no slot is tracked
};

}  // namespace

std::optional<LogonRecord> LogonUser::Record(const std::string& user) {
  // The store holds no more than a text for a name, so there is no certificate to go with it.
  const std::optional<std::string> identity = runtime::GetStoredCredential(user);
  if (!identity) return std::nullopt;
  LogonRecord record;
  identity->copy(record.identity.data(), record.identity.size());
  return record;
}

void WatchLogonSlot(CWatchOptions& record, const Platform& platform) {
  std::optional<std::string> user = platform.logonUser.Name();
  if (!user || user->empty()) return;
  LogonWatch watch(record, platform, *std::move(user));
  RunRounds(watch, record.roundLimit, platform);
}

}  // namespace qixx::watch
