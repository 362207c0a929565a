// The module's slots under the numbers that the service counts with, and what happens in them.
//
// The service knows 0 as no slot and takes three numbers for one reader, of which it listens to the
// first: 1, 4, 7 and so on up to 94, from 97 on one number for each. Reader k, in the order in
// which the module first showed them, has the number 3k+1, later ones 97 and up; a reader is known
// again by its description, so it keeps its number when it is pulled out and plugged in again. Only
// a slot that stays, and is no PC/SC reader, may change its description and keep its number.
// Where a module has several slots for one reader, as for a card with several PINs, the secondary
// ones get the other two numbers of that reader, and tell no events.
//
// A slot whose description is the name of a PC/SC reader is watched by PC/SC itself: its changes
// are known before, and without, the module reading the card. For all other slots the module is
// asked for its events, and their states are compared: at each poll when it has no events, else
// at an event and once a second, since there are modules that keep some back, those of new readers
// above all.
//
// Events are told of one card at a time. As long as the card that was told of is in, nothing is
// told of another; when it has gone that is told, and then the next card that is in. Slots that the
// filter leaves out tell nothing, and are not listed among those with a token; all else works with
// them.
//
// Not for several threads at a time. May throw std::bad_alloc, which leaves everything usable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "bridge/reader_filter.h"
#include "bridge/readers.h"
#include "pkcs11/session.h"

namespace qixx::bridge {

/// Slots, by their numbers or by the module's ids.
using pkcs11::SlotList;

class Slots {
 public:
  /// Begins to watch: what is there now is no event. Of the cards that are in now the first, but
  /// none above number 99, counts as told of, unless one that was told of before is still in. The
  /// module is initialised and stays so until End.
  void Begin(const CK_FUNCTION_LIST& module, ReaderFilter filter);
  /// Ends it; the numbers stay.
  void End();
  /// Instead of End in a forked child: the connection to PC/SC is the parent's.
  void Abandon() { readers_.Abandon(); }

  /// The numbers of the slots in the module's order. With `withToken` the card that was told of, or
  /// will be told of next, comes first. `refresh` asks the module to look for new slots.
  SlotList List(bool withToken, bool refresh);
  /// What is known of a slot without the module; nothing where the module is to be asked.
  [[nodiscard]] std::optional<CK_SLOT_INFO> Info(CK_SLOT_ID number);
  /// The module's id of a slot that it lists now: it may use that of another one anew.
  [[nodiscard]] std::optional<CK_SLOT_ID> ToModule(CK_SLOT_ID number);
  [[nodiscard]] std::optional<CK_SLOT_ID> FromModule(CK_SLOT_ID id);

  /// Whether events of the slot are told; nothing for an unknown one.
  [[nodiscard]] std::optional<bool> Counts(CK_SLOT_ID number);

  /// The card that was told of counts as one that is not in, until it goes. For another slot
  /// nothing happens.
  void PassOver(CK_SLOT_ID number);

  /// A reader that went, and may be back, between two polls: its card counts as pulled.
  void NoteGone(std::string_view reader) { readers_.Forget(reader); }

  /// Polls, and takes the next event: CKR_OK, CKR_NO_EVENT, or what the module answered when it
  /// failed. From its first failure on each poll that needs the module fails, until it has listed
  /// its slots again; what PC/SC tells is told meanwhile. A card that was changed for another one
  /// between two polls gives two events, pulled and inserted. After the first Info shows the slot
  /// empty until the next call, at most for ten seconds: a caller that uses Info alone is to see
  /// the new card, too.
  /// Without `readersMayHaveNews` PC/SC is asked only now and then.
  [[nodiscard]] CK_RV TakeEvent(bool readersMayHaveNews, CK_SLOT_ID& number);
  /// Whether the poll of the last TakeEvent found another event behind the one taken.
  [[nodiscard]] bool HasEvent() { return NextEvent() != nullptr; }

 private:
  struct Slot {
    CK_SLOT_ID number = 0;
    CK_SLOT_ID id = 0;  ///< the module's, when it was last listed
    CK_SLOT_INFO info{};
    bool isListed = false;        ///< by the module now, else the id may be another slot's
    bool isPlaced = false;        ///< found again, while a list is gone through
    bool isSecondary = false;     ///< another slot of a reader that has one already
    bool counts = false;          ///< its events may be told
    bool byPcsc = false;          ///< watched by PC/SC
    bool isPassedOver = false;    ///< its card is one that the caller takes no notice of
    Readers::State state{};       ///< at the last poll
    std::int64_t emptyUntil = 0;  ///< shown empty so long, or until the next event is taken

    [[nodiscard]] std::string_view Description() const { return DescriptionText(info); }
  };
  [[nodiscard]] CK_RV PollModule();
  void PollReaders();
  void AdoptReaders();
  void CompareStates();
  [[nodiscard]] CK_RV ReleasePulledCard();
  [[nodiscard]] bool IsShownWithToken(const Slot& slot) const;
  void AddPcscCards(std::vector<CK_SLOT_ID>& numbers) const;
  void PutFirst(std::vector<CK_SLOT_ID>& numbers);
  void DrainModuleEvents();
  CK_RV Refresh();
  [[nodiscard]] bool NeedsModule() const;
  [[nodiscard]] bool KnowsAllReaders() const;
  [[nodiscard]] bool HasTwin(const Slot& slot) const;
  [[nodiscard]] SlotList ListModule(bool withToken, bool refresh) const;

  void Place(std::vector<Slot>& snapshots);
  void Add(Slot slot);
  CK_SLOT_ID NewNumber(const Slot* first);
  [[nodiscard]] Slot* ByNumber(CK_SLOT_ID number);
  [[nodiscard]] Slot* ById(CK_SLOT_ID id);

  [[nodiscard]] Readers::State StateOf(const Slot& slot) const;
  [[nodiscard]] Slot* NextCard();
  [[nodiscard]] Slot* NextEvent();
  CK_SLOT_ID Tell(Slot& slot);

  const CK_FUNCTION_LIST* module_ = nullptr;
  ReaderFilter filter_;
  Readers readers_;
  std::vector<Slot> slots_;     ///< in the order in which they were first listed
  CK_SLOT_ID nextGroup_ = 1;    ///< the next reader's number, as long as it is below 97
  CK_SLOT_ID nextSingle_ = 97;  ///< then its number, and that of a secondary slot without a place
  CK_SLOT_ID told_ = 0;         ///< the slot whose card was told of; 0 when that has gone
  CK_SLOT_ID offered_ = 0;      ///< while told_ is 0: the slot that was listed first; 0 for none
  bool isPulled_ = false;       ///< a poll found that the card of told_, else of offered_, went
  std::size_t turn_ = 0;        ///< where to look for the next card, so that none waits for ever
  bool isStale_ = false;        ///< the module has not looked since the readers changed
  bool hasNewReaders_ = false;  ///< the last PollReaders found other readers than the one before
  int searches_ = 0;            ///< refreshes still to try for a reader that the module lacks
  bool isEventless_ = false;    ///< the module knows no events
  bool isUsed_ = false;         ///< the module may hold on to a card
  bool releaseDue_ = false;     ///< the module may hold on to a card that was pulled
  std::int64_t refreshed_ = 0;  ///< time of the last Refresh that succeeded, in milliseconds
  std::int64_t readersPolled_ = 0;  ///< time of the last PollReaders, in milliseconds
};

}  // namespace qixx::bridge
