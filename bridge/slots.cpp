#include "bridge/slots.h"

#include <algorithm>
#include <string>

#include "runtime/trace.h"

namespace qixx::bridge {
namespace {

// How the service counts: see CHelperPkcs11::NormalizeSlotId.
constexpr CK_SLOT_ID kGroupSize = 3;
constexpr CK_SLOT_ID kLastGroup = 94;

/// What a module may make us hold, whatever it says.
constexpr CK_ULONG kMaxSlots = 4096;
constexpr CK_ULONG kSlotsAtFirst = 32;
/// A list that grows between the question for its length and that for itself is asked for again.
constexpr int kListAttempts = 3;
/// More pending events than this are left for the next look.
constexpr int kEventsPerLook = 16;

/// Between two comparisons of all slots while the module tells events, in milliseconds.
constexpr std::int64_t kRefreshInterval = 1000;
/// How often a module is asked for a reader that PC/SC shows and it does not: it may be slower, or
/// be set to ignore it.
constexpr int kSearches = 10;
/// For how long a slot whose card was pulled shows none at most, in milliseconds.
constexpr std::int64_t kShownEmpty = 10'000;

}  // namespace

// --- for the bridge's functions -----------------------------------------------------------------

void Slots::Begin(const CK_FUNCTION_LIST& module) {
  module_ = &module;
  eventless_ = used_ = letGo_ = false;
  readers_.Look();
  searches_ = kSearches;
  Refresh();
  for (Slot& slot : slots_) {
    slot.emptyUntil = 0;
    slot.shown = StateOf(slot);
  }
}

void Slots::End() {
  module_ = nullptr;
  readers_.Close();
  readers_.Forget();
}

CK_RV Slots::List(bool withToken, bool refresh, std::vector<CK_SLOT_ID>& numbers) {
  used_ = true;
  if (stale_ || (refresh && !withToken)) Refresh();
  std::vector<CK_SLOT_ID> ids;
  const CK_RV result = ListModule(withToken, refresh && withToken, ids);
  if (result != CKR_OK) return result;
  if (!std::all_of(ids.begin(), ids.end(), [this](CK_SLOT_ID id) { return ById(id) != nullptr; })) {
    Refresh();
  }
  numbers.clear();
  for (const CK_SLOT_ID id : ids) {
    if (const Slot* const slot = ById(id); slot != nullptr) numbers.push_back(slot->number);
  }
  if (withToken) AddSeenByPcsc(numbers);
  return CKR_OK;
}

/// A module may leave out a card that it cannot read. The commands of its insertion run as well.
void Slots::AddSeenByPcsc(std::vector<CK_SLOT_ID>& numbers) const {
  for (const Slot& slot : slots_) {
    if (!slot.byPcsc || !slot.listed || slot.further || !StateOf(slot).present) continue;
    if (std::find(numbers.begin(), numbers.end(), slot.number) == numbers.end()) {
      numbers.push_back(slot.number);
    }
  }
}

std::optional<CK_SLOT_INFO> Slots::Info(CK_SLOT_ID number) {
  LookAtReaders();
  const Slot* const slot = ByNumber(number);
  if (slot == nullptr || !slot->byPcsc) return {};
  CK_SLOT_INFO info = slot->info;
  info.flags &= ~CKF_TOKEN_PRESENT;
  if (Milliseconds() >= slot->emptyUntil && StateOf(*slot).present) info.flags |= CKF_TOKEN_PRESENT;
  return info;
}

std::optional<CK_SLOT_ID> Slots::ToModule(CK_SLOT_ID number) {
  used_ = true;
  const Slot* slot = ByNumber(number);
  if (stale_ || (slot != nullptr && !slot->listed)) {
    Refresh();
    slot = ByNumber(number);
  }
  return slot == nullptr || !slot->listed ? std::nullopt : std::optional(slot->id);
}

std::optional<CK_SLOT_ID> Slots::FromModule(CK_SLOT_ID id) {
  const Slot* const slot = ById(id);
  return slot == nullptr ? std::nullopt : std::optional(slot->number);
}

bool Slots::TakeEvent(CK_SLOT_ID& number) {
  for (Slot& slot : slots_) slot.emptyUntil = 0;
  Look();
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    const std::size_t place = (turn_ + i) % slots_.size();
    Slot& slot = slots_[place];
    if (slot.further || !ShowNext(slot, StateOf(slot))) continue;
    turn_ = place + 1;
    number = slot.number;
    if (slot.byPcsc && !slot.shown.present) letGo_ = used_;
    return true;
  }
  if (letGo_) LetGo();
  return false;
}

/// The module has not seen that a card it used was pulled. It holds on to it, which may keep others
/// from the next card, until it looks; there is time for that now.
void Slots::LetGo() {
  letGo_ = used_ = false;
  Refresh();
}

// --- states -------------------------------------------------------------------------------------

Readers::State Slots::StateOf(const Slot& slot) const {
  if (!slot.byPcsc) return {slot.listed && (slot.info.flags & CKF_TOKEN_PRESENT) != 0, 0};
  const Readers::Reader* const reader = readers_.Find(slot.Description());
  return reader == nullptr ? Readers::State{} : reader->state;
}

/// True when there is something to tell. A card that gave place to another is pulled first.
bool Slots::ShowNext(Slot& slot, const Readers::State& state) {
  const bool wasPresent = slot.shown.present;
  const bool isPulled = wasPresent && slot.shown != state;
  slot.shown = {state.present && !isPulled, state.changes};
  // The next card may be in before anybody has asked.
  if (isPulled) slot.emptyUntil = Milliseconds() + kShownEmpty;
  return slot.shown.present != wasPresent;
}

/// Of other readers the module hears when it is next needed.
void Slots::LookAtReaders() {
  if (readers_.Look()) {
    stale_ = true;
    searches_ = kSearches;
  }
  AdoptReaders();
}

void Slots::Look() {
  LookAtReaders();
  if (searches_ > 0 && KnowsAllReaders()) searches_ = 0;
  const bool comparing = NeedsModule();
  if (comparing && !eventless_) HearModule();
  const bool isDue = Milliseconds() - refreshed_ >= kRefreshInterval;
  const bool searching = searches_ > 0 && (stale_ || isDue);
  if (searching) --searches_;
  if (searching || (comparing && (eventless_ || isDue))) Refresh();
}

/// A slot is watched by PC/SC when it alone has the name of one reader. Once others have that name
/// too, as far as a description goes, only the module can tell them apart.
void Slots::AdoptReaders() {
  for (Slot& slot : slots_) {
    if (slot.further) continue;
    const std::size_t readers = readers_.Count(slot.Description());
    if (slot.byPcsc && (readers > 1 || HasTwin(slot))) {
      slot.byPcsc = false;
      slot.shown.changes = 0;
      refreshed_ = 0;  // its state has to be asked for
    } else if (!slot.byPcsc && readers == 1 && !HasTwin(slot)) {
      slot.byPcsc = true;
      slot.shown.changes = readers_.Find(slot.Description())->state.changes;
    }
  }
}

bool Slots::HasTwin(const Slot& slot) const {
  return std::any_of(slots_.begin(), slots_.end(), [&slot](const Slot& other) {
    return &other != &slot && !other.further && other.Description() == slot.Description();
  });
}

bool Slots::KnowsAllReaders() const {
  const auto isKnown = [this](const Readers::Reader& reader) {
    return std::any_of(slots_.begin(), slots_.end(), [&reader](const Slot& slot) {
      return slot.listed && slot.Description() == reader.name;
    });
  };
  return std::all_of(readers_.All().begin(), readers_.All().end(), isKnown);
}

bool Slots::NeedsModule() const {
  return slots_.empty() || !std::all_of(slots_.begin(), slots_.end(), [](const Slot& slot) {
           return slot.byPcsc || slot.further;
         });
}

// --- the module ---------------------------------------------------------------------------------

/// An event says that the slots are worth a look, and no more: what is told is their state.
void Slots::HearModule() {
  for (int taken = 0; taken < kEventsPerLook; ++taken) {
    CK_SLOT_ID id = 0;
    const CK_RV result = module_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &id, nullptr);
    if (result == CKR_FUNCTION_NOT_SUPPORTED) eventless_ = true;
    if (result != CKR_OK) return;
    refreshed_ = 0;
  }
}

CK_RV Slots::ListModule(bool withToken, bool refresh, std::vector<CK_SLOT_ID>& ids) const {
  const CK_BBOOL present = withToken ? CK_TRUE : CK_FALSE;
  CK_ULONG count = 0;
  // Some modules look for new readers when they are asked for the number alone.
  CK_RV result = refresh ? module_->C_GetSlotList(present, nullptr, &count) : CKR_OK;
  for (int attempt = 0; result == CKR_OK && attempt < kListAttempts; ++attempt) {
    ids.resize(std::clamp(count, kSlotsAtFirst, kMaxSlots));
    count = ids.size();
    result = module_->C_GetSlotList(present, ids.data(), &count);
    if (result == CKR_OK) {
      ids.resize(std::min<std::size_t>(count, ids.size()));
      return CKR_OK;
    }
    if (result == CKR_BUFFER_TOO_SMALL) result = module_->C_GetSlotList(present, nullptr, &count);
  }
  return result == CKR_OK ? CKR_BUFFER_TOO_SMALL : result;
}

/// Brings everything up to what the module lists now. A list that fails says nothing. A slot of
/// which nothing can be read shows no token, and gets no number before something can.
void Slots::Refresh() {
  refreshed_ = Milliseconds();
  std::vector<CK_SLOT_ID> ids;
  if (ListModule(false, true, ids) != CKR_OK) return;
  std::vector<Sight> sights;
  sights.reserve(ids.size());
  for (const CK_SLOT_ID id : ids) {
    Sight sight = {.id = id};
    if (module_->C_GetSlotInfo(id, &sight.info) != CKR_OK) {
      const Slot* const known = ById(id);
      if (known == nullptr) continue;
      sight.info = known->info;
      sight.info.flags &= ~CKF_TOKEN_PRESENT;
    }
    if ((sight.info.flags & CKF_TOKEN_PRESENT) != 0) used_ = true;
    sights.push_back(sight);
  }
  Place(sights);
  AdoptReaders();
  stale_ = false;
}

// --- numbers ------------------------------------------------------------------------------------

/// Finds each slot among those seen before: unchanged, else by its description, else where it was,
/// unless it is a reader's name that the module now shows there.
void Slots::Place(std::vector<Sight>& sights) {
  for (Slot& slot : slots_) slot.placed = false;
  const auto claim = [this, &sights](const auto& isSame) {
    for (Sight& sight : sights) {
      const std::string_view description = DescriptionText(sight.info);
      const auto slot = std::find_if(slots_.begin(), slots_.end(), [&](const Slot& known) {
        return !sight.placed && !known.placed && isSame(known, sight.id, description);
      });
      if (slot == slots_.end()) continue;
      slot->id = sight.id;
      slot->info = sight.info;
      slot->placed = sight.placed = true;
    }
  };
  claim([](const Slot& slot, CK_SLOT_ID id, std::string_view description) {
    return slot.id == id && slot.Description() == description;
  });
  claim([](const Slot& slot, CK_SLOT_ID, std::string_view description) {
    return !description.empty() && slot.Description() == description;
  });
  claim([this](const Slot& slot, CK_SLOT_ID id, std::string_view description) {
    return slot.listed && slot.id == id && !slot.further && !slot.byPcsc &&
           readers_.Count(description) == 0;
  });
  for (Slot& slot : slots_) slot.listed = slot.placed;
  for (const Sight& sight : sights) {
    if (!sight.placed && slots_.size() < kMaxSlots) Add(sight);
  }
}

void Slots::Add(const Sight& sight) {
  Slot slot;
  slot.id = sight.id;
  slot.info = sight.info;
  slot.listed = true;
  // Two slots of this name are two of one reader when PC/SC knows just one of it.
  const auto first = std::find_if(slots_.begin(), slots_.end(), [&slot](const Slot& other) {
    return !other.further && other.Description() == slot.Description();
  });
  slot.further = first != slots_.end() && readers_.Find(slot.Description()) != nullptr;
  slot.number = NewNumber(slot.further ? &*first : nullptr);
  slots_.push_back(slot);
  std::string name(slot.Description());
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
  std::replace_if(name.begin(), name.end(), isControl, '_');  // it comes from a device
  runtime::TraceWrite("Bridge - Slot %d is slot 0x%lx of the module, '%s'",
                      static_cast<int>(slot.number), slot.id, name.c_str());
}

/// For another slot of a reader one of that reader's numbers, as long as it has any.
CK_SLOT_ID Slots::NewNumber(const Slot* first) {
  if (first != nullptr && first->number <= kLastGroup) {
    for (CK_SLOT_ID number = first->number + 1; number < first->number + kGroupSize; ++number) {
      if (ByNumber(number) == nullptr) return number;
    }
  }
  CK_SLOT_ID& next = first == nullptr && nextGroup_ <= kLastGroup ? nextGroup_ : nextSingle_;
  const CK_SLOT_ID number = next;
  next += &next == &nextGroup_ ? kGroupSize : 1;
  return number;
}

Slots::Slot* Slots::ByNumber(CK_SLOT_ID number) {
  const auto slot = std::find_if(slots_.begin(), slots_.end(), [number](const Slot& candidate) {
    return candidate.number == number;
  });
  return slot == slots_.end() ? nullptr : &*slot;
}

/// Of those that the module lists.
Slots::Slot* Slots::ById(CK_SLOT_ID id) {
  const auto slot = std::find_if(slots_.begin(), slots_.end(), [id](const Slot& candidate) {
    return candidate.listed && candidate.id == id;
  });
  return slot == slots_.end() ? nullptr : &*slot;
}

}  // namespace qixx::bridge
