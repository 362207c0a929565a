// The module's slots under the numbers that the service counts with, and what happens in them.
//
// The service knows 0 as no slot and takes three numbers for one reader, of which it listens to the
// first: 1, 4, 7 and so on up to 94, from 97 on one number for each. Reader k, in the order in
// which the module first showed them, has the number 3k+1, later ones 97 and up; a reader is known
// again by its description, so it keeps its number when it is pulled out and plugged in again. Only
// a slot that stays, and is no PC/SC reader, may change its description and keep its number.
// Where a module has several slots for one reader, as for a card with several PINs, the further
// ones get the other two numbers of that reader.
//
// A slot whose description is the name of a PC/SC reader is watched by PC/SC itself: its changes
// are known before, and without, the module reading the card. For all other slots the module is
// asked for its events, and their states are compared: at each look when it has no events, else
// at an event and once a second, since there are modules that keep some back, those of new readers
// above all.
//
// Not for several threads at a time. May throw std::bad_alloc, which leaves everything usable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "bridge/readers.h"
#include "pkcs11/cryptoki.h"

namespace qixx::bridge {

class Slots {
 public:
  /// Begins to watch: what is there now is no event. The module is initialised and stays so until
  /// End.
  void Begin(const CK_FUNCTION_LIST& module);
  /// Ends it; the numbers stay.
  void End();
  /// Instead of End in a forked child: the parent goes on.
  void LeaveToParent() { readers_.Forget(); }

  /// The numbers of the slots in the module's order. `refresh` asks the module to look for new
  /// ones.
  CK_RV List(bool withToken, bool refresh, std::vector<CK_SLOT_ID>& numbers);
  /// What is known of a slot without the module; nothing where the module is to be asked.
  [[nodiscard]] std::optional<CK_SLOT_INFO> Info(CK_SLOT_ID number);
  /// The module's id of a slot that it lists now: it may use that of another one anew.
  [[nodiscard]] std::optional<CK_SLOT_ID> ToModule(CK_SLOT_ID number);
  [[nodiscard]] std::optional<CK_SLOT_ID> FromModule(CK_SLOT_ID id);

  /// Takes the next event without waiting. A card that was changed for another one between two
  /// looks gives two, pulled and inserted. After the first Info shows the slot empty until the next
  /// call, or for a second: who polls Info alone is to see the new card, too.
  bool TakeEvent(CK_SLOT_ID& number);

 private:
  struct Slot {
    CK_SLOT_ID number = 0;
    CK_SLOT_ID id = 0;  ///< the module's, at last sight
    CK_SLOT_INFO info{};
    bool listed = false;   ///< by the module now, else the id may be another slot's
    bool placed = false;   ///< found again, while a list is gone through
    bool further = false;  ///< another slot of a reader that has one already: tells no events
    bool byPcsc = false;   ///< watched by PC/SC
    Readers::State shown;  ///< what was told of it last
    std::int64_t emptyUntil = 0;  ///< shown empty so long, or until the next event is taken

    [[nodiscard]] std::string_view Description() const { return DescriptionText(info); }
  };
  /// A slot as the module lists it.
  struct Sight {
    CK_SLOT_ID id = 0;
    CK_SLOT_INFO info{};
    bool placed = false;
  };

  void Look();
  void LookAtReaders();
  void AdoptReaders();
  void LetGo();
  void AddSeenByPcsc(std::vector<CK_SLOT_ID>& numbers) const;
  void HearModule();
  void Refresh();
  [[nodiscard]] bool NeedsModule() const;
  [[nodiscard]] bool KnowsAllReaders() const;
  [[nodiscard]] bool HasTwin(const Slot& slot) const;
  CK_RV ListModule(bool withToken, bool refresh, std::vector<CK_SLOT_ID>& ids) const;

  void Place(std::vector<Sight>& sights);
  void Add(const Sight& sight);
  CK_SLOT_ID NewNumber(const Slot* first);
  [[nodiscard]] Slot* ByNumber(CK_SLOT_ID number);
  [[nodiscard]] Slot* ById(CK_SLOT_ID id);

  [[nodiscard]] Readers::State StateOf(const Slot& slot) const;
  [[nodiscard]] static bool ShowNext(Slot& slot, const Readers::State& state);

  const CK_FUNCTION_LIST* module_ = nullptr;
  Readers readers_;
  std::vector<Slot> slots_;     ///< in the order of first sight
  CK_SLOT_ID nextGroup_ = 1;    ///< for a reader with three numbers
  CK_SLOT_ID nextSingle_ = 97;  ///< for one that has no more of those
  std::size_t turn_ = 0;        ///< the slot to begin with, so that none waits for ever
  bool stale_ = false;          ///< the module has not looked since the readers changed
  int searches_ = 0;            ///< refreshes still to try for a reader that the module lacks
  bool eventless_ = false;      ///< the module knows no events
  bool used_ = false;           ///< the module may hold on to a card
  bool letGo_ = false;          ///< and that card was pulled
  std::int64_t refreshed_ = 0;  ///< when, in milliseconds
};

}  // namespace qixx::bridge
