// A card reader and a clock that follow a test's script.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "runtime/text.h"
#include "tests/support/recipes.h"
#include "watch/options.h"
#include "watch/platform.h"

namespace qixx::testing {

/// A slot with a token in it.
struct Token {
  CK_SLOT_ID slot;
  std::string description = "Reader";
  std::string certificate = {};  ///< as it stands on the token
};
/// The slot of a poll's event (0 for none), and the tokens from then on.
struct Poll {
  CK_SLOT_ID event;
  std::vector<Token> tokens;
};

using Polls = std::vector<Poll>;

/// A card in slot 1 with a certificate of Ann's.
inline Polls AnnsCard() {
  return {{1, {{1, "Reader", Recipe().Build()}}}};
}

class ScriptedReader final : public watch::CardReader {
 public:
  /// The tokens of the first poll are in before.
  explicit ScriptedReader(Polls polls = {})
      : tokens(polls.empty() ? std::vector<Token>() : polls.front().tokens),
        polls_(std::move(polls)) {}

  void Initialise() override { initialised = true; }
  void Finalise() override { initialised = false; }
  bool IsInitialised() override { return initialised; }
  bool InitialiseAgain() override { return !std::exchange(initialised, true); }
  watch::PolledEvent TakeEvent() override {
    ++taken;
    watch::PolledEvent told;
    if (inPoll) inPoll(told);
    if (polled == polls_.size() || told.failure != CKR_OK) return told;
    const Poll& poll = polls_[polled++];
    tokens = poll.tokens;
    if (poll.event != watch::kNoSlot) told.slot = poll.event;
    return told;
  }
  int EventDescriptor() override { return descriptor; }
  CK_SLOT_ID FindSlotWithToken() override {
    return initialised && !tokens.empty() ? tokens.front().slot : watch::kNoSlot;
  }
  std::vector<CK_SLOT_ID> SlotsWithToken() override {
    std::vector<CK_SLOT_ID> slots;
    std::ranges::transform(tokens, std::back_inserter(slots), &Token::slot);
    return slots;
  }
  bool HasReader() override { return true; }
  bool ShowsToken(CK_SLOT_ID slot) override { return Find(slot) != nullptr; }
  bool IsTokenReadable(CK_SLOT_ID slot) override { return Find(slot) != nullptr && readable; }
  std::optional<watch::SlotDescription> Description(CK_SLOT_ID slot) override {
    const Token* const token = Find(slot);
    if (token == nullptr) return std::nullopt;
    watch::SlotDescription description = {};
    token->description.copy(description.data(), description.size());
    return description;
  }
  std::vector<der::CertificatePtr> CollectCertificates() override {
    std::vector<der::CertificatePtr> certificates;
    for (const Token& token : tokens) {
      der::CertificatePtr certificate = der::LoadCertificate(runtime::AsBytes(token.certificate));
      if (certificate != nullptr) certificates.push_back(std::move(certificate));
    }
    return certificates;
  }
  bool HasCertificateOf(const std::string& /*subject*/,
                        std::optional<CK_SLOT_ID> /*slot*/) override {
    return !tokens.empty() && matches;
  }
  bool HoldsCertificate(CK_SLOT_ID /*slot*/, der::Bytes /*certificate*/) override { return false; }
  std::optional<std::string> TokenVariable(CK_SLOT_ID /*slot*/, std::string_view name) override {
    return name == "ActiveLogonUPN" ? activeLogon : std::nullopt;
  }

  bool initialised = true;
  bool readable = true;
  bool matches = true;  ///< any subject
  std::optional<std::string> activeLogon;
  std::vector<Token> tokens;
  std::size_t polled = 0;  ///< as the script says
  std::size_t taken = 0;   ///< polls in all
  int descriptor = watch::kNoDescriptor;
  std::function<void(watch::PolledEvent&)> inPoll;  ///< may make the poll fail

 private:
  Token* Find(CK_SLOT_ID slot) {
    const auto token = std::ranges::find(tokens, slot, &Token::slot);
    return token == tokens.end() ? nullptr : &*token;
  }
  Polls polls_;
};

/// Sleeps take no time; what a test does in one happens at its start. A descriptor is readable when
/// the test says so.
class ScriptedClock final : public watch::Clock {
 public:
  watch::WakeUp Wait(unsigned milliseconds, int descriptor) override {
    if (milliseconds != 0) {
      slept.push_back(milliseconds);
      if (inSleep) inSleep();
    }
    if (stop) return watch::WakeUp::kStop;
    if (descriptor == watch::kNoDescriptor || !readable) return watch::WakeUp::kTimePassed;
    if (milliseconds != 0) ++endedEarly;
    return watch::WakeUp::kReadable;
  }
  std::vector<unsigned> slept;
  std::size_t endedEarly = 0;
  std::function<void()> inSleep;
  bool stop = false;
  bool readable = false;
};

/// A platform of scripted parts.
struct Scripted {
  explicit Scripted(const Polls& polls = {}) : reader(polls) {}
  ScriptedClock clock;
  ScriptedReader reader;
  watch::LogonUser user;  ///< nobody
  watch::ServiceManager manager;
  watch::Platform platform = {clock, reader, user, manager};
};

/// What a watcher of section "Watch" does.
inline watch::CWatchOptions Record(const std::string& rest, std::uint64_t rounds = 1,
                                   bool sync = true) {
  watch::CWatchOptions record;
  record.rest = rest;
  record.section = "Watch";
  record.roundLimit = rounds;
  record.sync = sync;
  return record;
}

}  // namespace qixx::testing
