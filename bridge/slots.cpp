#include "bridge/slots.h"

#include <algorithm>
#include <functional>
#include <string>
#include <utility>

#include "pkcs11/extended.h"
#include "runtime/clock.h"
#include "runtime/trace.h"

namespace qixx::bridge {
namespace {

/// The first number of the last group.
constexpr CK_SLOT_ID kLastGroup = pkcs11::kLastGroupedSlot - pkcs11::kSlotGroupSize + 1;

/// What a module may make us hold, whatever it says.
constexpr CK_ULONG kMaxSlots = 4096;
constexpr CK_ULONG kInitialSlots = 32;
/// A list that grows between the question for its length and that for itself is asked for again.
constexpr int kMaxListAttempts = 3;
/// More pending events than this are left for the next poll.
constexpr int kMaxEventsPerPoll = 16;

/// Between two comparisons of all slots while the module tells events, in milliseconds.
constexpr std::int64_t kRefreshInterval = 1000;
/// The readers are asked for after this time also when nothing was told of them, in milliseconds.
constexpr std::int64_t kMaxUnaskedReaders = 10'000;
/// How often a module is asked for a reader that PC/SC shows and it does not: it may be slower, or
/// be set to ignore it.
constexpr int kMaxSearches = 10;
/// For how long a slot whose card was pulled shows none at most, in milliseconds.
constexpr std::int64_t kMaxShownEmpty = 10'000;

}  // namespace

// --- for the bridge's functions -----------------------------------------------------------------

void Slots::Begin(const CK_FUNCTION_LIST& module, ReaderFilter filter) {
  module_ = &module;
  filter_ = std::move(filter);
  isEventless_ = isUsed_ = releaseDue_ = false;
  readers_.Poll();
  searches_ = kMaxSearches;
  refreshed_ = 0;
  Refresh();  // one that fails is due at the first poll
  for (Slot& slot : slots_) {
    slot.emptyUntil = 0;
    slot.isPassedOver = false;
    slot.state = StateOf(slot);
  }
  offered_ = turn_ = 0;
  isPulled_ = false;
  const Slot* told = ByNumber(told_);
  if (told == nullptr || !told->counts || !told->state.present) {
    told = NextCard();
    // The service looks for none of these at start; it is told of them.
    if (told != nullptr && told->number > pkcs11::kLastReaderSlot) told = nullptr;
  }
  told_ = told == nullptr ? 0 : told->number;
}

void Slots::End() {
  module_ = nullptr;
  readers_.Close();
}

SlotList Slots::List(bool withToken, bool refresh) {
  isUsed_ = true;
  if (isStale_ || (refresh && !withToken)) Refresh();
  const auto [result, ids] = ListModule(withToken, refresh && withToken);
  if (result != CKR_OK) return {result, {}};
  if (std::ranges::any_of(ids, [this](CK_SLOT_ID id) { return ById(id) == nullptr; })) Refresh();
  if (withToken) PollReaders();
  std::vector<CK_SLOT_ID> numbers;
  for (const CK_SLOT_ID id : ids) {
    const Slot* const slot = ById(id);
    if (slot != nullptr && (!withToken || IsShownWithToken(*slot))) numbers.push_back(slot->number);
  }
  if (withToken) {
    AddPcscCards(numbers);
    PutFirst(numbers);
  }
  return {CKR_OK, std::move(numbers)};
}

/// Of a slot that the module lists with a token. It may not have seen yet that the card has gone.
bool Slots::IsShownWithToken(const Slot& slot) const {
  return slot.counts && (!slot.byPcsc || StateOf(slot).present);
}

/// A module may leave out a card that it cannot read. The commands of its insertion run as well.
void Slots::AddPcscCards(std::vector<CK_SLOT_ID>& numbers) const {
  for (const Slot& slot : slots_) {
    if (!slot.byPcsc || !slot.isListed || !IsShownWithToken(slot)) continue;
    const bool isListed = std::ranges::find(numbers, slot.number) != numbers.end();
    if (!isListed) numbers.push_back(slot.number);
  }
}

/// When the service starts it takes the first slot for the one with the card, so the card that was
/// told of stands there. When there is none, the one that stands there is the next to be told of.
void Slots::PutFirst(std::vector<CK_SLOT_ID>& numbers) {
  const Slot* const next = told_ == 0 ? NextCard() : ByNumber(told_);
  if (next != nullptr) {
    const auto place = std::ranges::find(numbers, next->number);
    if (place != numbers.end()) std::rotate(numbers.begin(), place, place + 1);
  }
  if (told_ != 0 || numbers.empty() || ByNumber(numbers.front())->isSecondary) return;
  offered_ = numbers.front();
  refreshed_ = 0;  // the module's list may be newer than the states
}

std::optional<CK_SLOT_INFO> Slots::Info(CK_SLOT_ID number) {
  PollReaders();
  const Slot* const slot = ByNumber(number);
  if (slot == nullptr || !slot->byPcsc) return {};
  CK_SLOT_INFO info = slot->info;
  info.flags &= ~CKF_TOKEN_PRESENT;
  const bool isShown = runtime::MonotonicMilliseconds() >= slot->emptyUntil;
  if (isShown && StateOf(*slot).present) info.flags |= CKF_TOKEN_PRESENT;
  return info;
}

std::optional<CK_SLOT_ID> Slots::ToModule(CK_SLOT_ID number) {
  isUsed_ = true;
  const Slot* slot = ByNumber(number);
  if (isStale_ || (slot != nullptr && !slot->isListed)) {
    Refresh();
    slot = ByNumber(number);
  }
  return slot == nullptr || !slot->isListed ? std::nullopt : std::optional(slot->id);
}

std::optional<CK_SLOT_ID> Slots::FromModule(CK_SLOT_ID id) {
  const Slot* const slot = ById(id);
  return slot == nullptr ? std::nullopt : std::optional(slot->number);
}

// --- events -------------------------------------------------------------------------------------

std::optional<bool> Slots::Counts(CK_SLOT_ID number) {
  const Slot* const slot = ByNumber(number);
  if (slot == nullptr) return std::nullopt;
  return slot->counts && !slot->isSecondary;
}

CK_RV Slots::TakeEvent(bool readersMayHaveNews, CK_SLOT_ID& number) {
  for (Slot& slot : slots_) slot.emptyUntil = 0;
  const bool isReadersDue = runtime::MonotonicMilliseconds() - readersPolled_ >= kMaxUnaskedReaders;
  // A list that has just changed may have been one of a moment, which the waiting thread missed.
  const bool isDoubtful = hasNewReaders_ || !readers_.IsComplete();
  if (readersMayHaveNews || isReadersDue || isDoubtful) PollReaders();
  CompareStates();
  // What PC/SC knows does not wait for the module, which may be slow or fail.
  Slot* next = NextEvent();
  if (next == nullptr || !next->byPcsc) {
    if (const CK_RV result = PollModule(); result != CKR_OK) return result;
    CompareStates();
    next = NextEvent();
  }
  if (next != nullptr) {
    number = Tell(*next);
    return CKR_OK;
  }
  const CK_RV released = releaseDue_ ? ReleasePulledCard() : CKR_OK;
  return released == CKR_OK ? CKR_NO_EVENT : released;
}

void Slots::PassOver(CK_SLOT_ID number) {
  Slot* const slot = ByNumber(number);
  if (slot == nullptr || number != told_) return;
  slot->isPassedOver = true;
  isPulled_ = false;
  told_ = 0;
}

/// The slot of the next event by the states of the last poll, null for none. Who was offered a card
/// may hold it for told of, so it is told of next, also when it has gone.
Slots::Slot* Slots::NextEvent() {
  if (told_ != 0) return isPulled_ ? ByNumber(told_) : nullptr;
  return offered_ != 0 ? ByNumber(offered_) : NextCard();
}

Slots::Slot* Slots::NextCard() {
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    Slot& slot = slots_[(turn_ + i) % slots_.size()];
    const bool isTold = slot.counts && !slot.isSecondary && !slot.isPassedOver;
    if (isTold && slot.state.present) return &slot;
  }
  return nullptr;
}

/// A card that gave place to another was pulled first. The next card is looked for in another slot.
CK_SLOT_ID Slots::Tell(Slot& slot) {
  if (isPulled_ || !slot.state.present) {
    slot.emptyUntil = runtime::MonotonicMilliseconds() + kMaxShownEmpty;
    turn_ = static_cast<std::size_t>(&slot - slots_.data()) + 1;
    told_ = 0;
  } else {
    told_ = slot.number;
  }
  offered_ = 0;
  isPulled_ = false;
  return slot.number;
}

// --- states -------------------------------------------------------------------------------------

Readers::State Slots::StateOf(const Slot& slot) const {
  if (!slot.byPcsc) return {slot.isListed && (slot.info.flags & CKF_TOKEN_PRESENT) != 0, 0};
  const Readers::Reader* const reader = readers_.Find(slot.Description());
  return reader == nullptr ? Readers::State{} : reader->state;
}

void Slots::CompareStates() {
  const CK_SLOT_ID watched = told_ != 0 ? told_ : offered_;
  for (Slot& slot : slots_) {
    const Readers::State state = StateOf(slot);
    if (slot.state.present && state != slot.state) {
      if (slot.number == watched) isPulled_ = true;
      if (slot.byPcsc) releaseDue_ = isUsed_;
    }
    slot.isPassedOver = slot.isPassedOver && state == slot.state;
    slot.state = state;
  }
}

/// The module has not seen that a card it used was pulled. It holds on to it, which may keep others
/// from the next card, until it is made to look; there is time for that now.
CK_RV Slots::ReleasePulledCard() {
  releaseDue_ = isUsed_ = false;
  return Refresh();
}

/// The module is told of other readers when it is next needed.
void Slots::PollReaders() {
  readersPolled_ = runtime::MonotonicMilliseconds();
  hasNewReaders_ = readers_.Poll();
  if (hasNewReaders_) {
    isStale_ = true;
    searches_ = kMaxSearches;
  }
  AdoptReaders();
}

/// CKR_OK also when the module was not needed.
CK_RV Slots::PollModule() {
  if (searches_ > 0 && KnowsAllReaders()) searches_ = 0;
  const bool comparing = NeedsModule();
  if (comparing && !isEventless_) DrainModuleEvents();
  const bool isDue = runtime::MonotonicMilliseconds() - refreshed_ >= kRefreshInterval;
  const bool searching = searches_ > 0 && (isStale_ || isDue);
  if (!searching && !(comparing && (isEventless_ || isDue))) return CKR_OK;
  const CK_RV result = Refresh();
  if (searching && result == CKR_OK) --searches_;
  return result;
}

/// A slot is watched by PC/SC when it alone has the name of one reader. Once others have that name
/// too, as far as a description goes, only the module can tell them apart.
void Slots::AdoptReaders() {
  for (Slot& slot : slots_) {
    if (slot.isSecondary) continue;
    const std::size_t readers = readers_.Count(slot.Description());
    if (slot.byPcsc && (readers > 1 || HasTwin(slot))) {
      slot.byPcsc = false;
      slot.state.changes = 0;
      refreshed_ = 0;  // its state has to be asked for
    } else if (!slot.byPcsc && readers == 1 && !HasTwin(slot)) {
      slot.byPcsc = true;
      slot.state.changes = readers_.Find(slot.Description())->state.changes;
    }
  }
}

bool Slots::HasTwin(const Slot& slot) const {
  return std::ranges::any_of(slots_, [&slot](const Slot& other) {
    return &other != &slot && !other.isSecondary && other.Description() == slot.Description();
  });
}

bool Slots::KnowsAllReaders() const {
  return std::ranges::all_of(readers_.All(), [this](const Readers::Reader& reader) {
    return std::ranges::any_of(slots_, [&reader](const Slot& slot) {
      return slot.isListed && slot.Description() == reader.name;
    });
  });
}

bool Slots::NeedsModule() const {
  const auto needsIt = [](const Slot& slot) { return !slot.byPcsc && !slot.isSecondary; };
  return slots_.empty() || std::ranges::any_of(slots_, needsIt);
}

// --- the module ---------------------------------------------------------------------------------

/// An event of the module only makes the states of its slots be read: they decide what is told. So
/// does a failure: the list of slots shows whether it is one of the module's events alone.
void Slots::DrainModuleEvents() {
  for (int taken = 0; taken < kMaxEventsPerPoll; ++taken) {
    CK_SLOT_ID id = 0;
    const CK_RV result = module_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &id, nullptr);
    if (result == CKR_NO_EVENT) return;
    refreshed_ = 0;
    if (result == CKR_FUNCTION_NOT_SUPPORTED) isEventless_ = true;
    if (result != CKR_OK) return;
  }
}

SlotList Slots::ListModule(bool withToken, bool refresh) const {
  const CK_BBOOL present = withToken ? CK_TRUE : CK_FALSE;
  std::vector<CK_SLOT_ID> ids;
  CK_ULONG count = 0;
  // Some modules look for new readers when they are asked for the number alone.
  CK_RV result = refresh ? module_->C_GetSlotList(present, nullptr, &count) : CKR_OK;
  for (int attempt = 0; result == CKR_OK && attempt < kMaxListAttempts; ++attempt) {
    ids.resize(std::clamp(count, kInitialSlots, kMaxSlots));
    count = ids.size();
    result = module_->C_GetSlotList(present, ids.data(), &count);
    if (result == CKR_OK) {
      ids.resize(std::min<std::size_t>(count, ids.size()));
      return {CKR_OK, std::move(ids)};
    }
    if (result == CKR_BUFFER_TOO_SMALL) result = module_->C_GetSlotList(present, nullptr, &count);
  }
  return {result == CKR_OK ? CKR_BUFFER_TOO_SMALL : result, {}};
}

/// Brings everything up to what the module lists now. A list that fails changes nothing, and is due
/// again at the next poll. A slot of which nothing can be read shows no token, and gets no number
/// before something can.
CK_RV Slots::Refresh() {
  const auto [result, ids] = ListModule(false, true);
  if (result != CKR_OK) return result;
  std::vector<Slot> snapshots;
  snapshots.reserve(ids.size());
  for (const CK_SLOT_ID id : ids) {
    Slot snapshot = {.id = id};
    if (module_->C_GetSlotInfo(id, &snapshot.info) != CKR_OK) {
      const Slot* const known = ById(id);
      if (known == nullptr) continue;
      snapshot.info = known->info;
      snapshot.info.flags &= ~CKF_TOKEN_PRESENT;
    }
    if ((snapshot.info.flags & CKF_TOKEN_PRESENT) != 0) isUsed_ = true;
    snapshot.counts = filter_.Counts(snapshot.info);
    snapshots.push_back(snapshot);
  }
  Place(snapshots);
  refreshed_ = runtime::MonotonicMilliseconds();
  AdoptReaders();
  isStale_ = false;
  return CKR_OK;
}

// --- numbers ------------------------------------------------------------------------------------

/// Finds each slot among those seen before: unchanged, else by its description, else where it was,
/// unless it is a reader's name that the module now shows there.
void Slots::Place(std::vector<Slot>& snapshots) {
  for (Slot& slot : slots_) slot.isPlaced = false;
  const auto claim = [this, &snapshots](const auto& isSame) {
    for (Slot& snapshot : snapshots) {
      const auto slot = std::ranges::find_if(slots_, [&](const Slot& known) {
        return !snapshot.isPlaced && !known.isPlaced && isSame(known, snapshot);
      });
      if (slot == slots_.end()) continue;
      slot->id = snapshot.id;
      slot->info = snapshot.info;
      slot->counts = snapshot.counts;
      slot->isPlaced = snapshot.isPlaced = true;
    }
  };
  claim([](const Slot& slot, const Slot& snapshot) {
    return slot.id == snapshot.id && slot.Description() == snapshot.Description();
  });
  claim([](const Slot& slot, const Slot& snapshot) {
    return !snapshot.Description().empty() && slot.Description() == snapshot.Description();
  });
  claim([this](const Slot& slot, const Slot& snapshot) {
    return slot.isListed && slot.id == snapshot.id && !slot.isSecondary && !slot.byPcsc &&
           readers_.Count(snapshot.Description()) == 0;
  });
  for (Slot& slot : slots_) slot.isListed = slot.isPlaced;
  for (const Slot& snapshot : snapshots) {
    if (!snapshot.isPlaced && slots_.size() < kMaxSlots) Add(snapshot);
  }
}

/// `slot` is a snapshot that was not placed.
void Slots::Add(Slot slot) {
  slot.isListed = true;
  // Two slots of this name are two of one reader when PC/SC knows just one of it.
  const auto first = std::ranges::find_if(slots_, [&slot](const Slot& other) {
    return !other.isSecondary && other.Description() == slot.Description();
  });
  slot.isSecondary = first != slots_.end() && readers_.Find(slot.Description()) != nullptr;
  slot.number = NewNumber(slot.isSecondary ? &*first : nullptr);
  slots_.push_back(slot);
  std::string name(slot.Description());
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~'; };
  std::ranges::replace_if(name, std::not_fn(isPlain), '_');  // it comes from a device
  runtime::TraceWrite("Bridge - Slot %d is slot 0x%lx of the module, '%s'",
                      static_cast<int>(slot.number), slot.id, name.c_str());
}

/// For another slot of a reader one of that reader's numbers, as long as it has any.
CK_SLOT_ID Slots::NewNumber(const Slot* first) {
  if (first != nullptr && first->number <= kLastGroup) {
    for (CK_SLOT_ID number = first->number + 1; number < first->number + pkcs11::kSlotGroupSize;
         ++number) {
      if (ByNumber(number) == nullptr) return number;
    }
  }
  CK_SLOT_ID& next = first == nullptr && nextGroup_ <= kLastGroup ? nextGroup_ : nextSingle_;
  const CK_SLOT_ID number = next;
  next += &next == &nextGroup_ ? pkcs11::kSlotGroupSize : 1;
  return number;
}

Slots::Slot* Slots::ByNumber(CK_SLOT_ID number) {
  const auto slot = std::ranges::find(slots_, number, &Slot::number);
  return slot == slots_.end() ? nullptr : &*slot;
}

/// Of those that the module lists.
Slots::Slot* Slots::ById(CK_SLOT_ID id) {
  const auto slot = std::ranges::find_if(
      slots_, [id](const Slot& known) { return known.isListed && known.id == id; });
  return slot == slots_.end() ? nullptr : &*slot;
}

}  // namespace qixx::bridge
