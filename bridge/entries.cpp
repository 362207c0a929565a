// The bridge's PKCS#11 functions: the standard's, and the suite's extension.
//
// All may be called from any thread, as far as the module beneath allows; the bridge has one lock
// of its own, which is held for the numbers of the slots and for events, not while a call goes on
// into the module with a session. In a forked child nothing is initialised. Nothing is thrown
// across.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bridge/event_watch.h"
#include "bridge/module.h"
#include "bridge/slots.h"
#include "bridge/variables.h"
#include "pkcs11/entry.h"
#include "pkcs11/extended.h"
#include "runtime/no_destructor.h"
#include "runtime/sync.h"
#include "runtime/text.h"

namespace qixx::bridge {
namespace {

/// Between two polls while a thread waits for a slot event, and between two checks of C_Finalize
/// whether the waiting threads have left.
constexpr timespec kWaitPause = {0, 200'000'000};
constexpr timespec kLeavePause = {0, 5'000'000};

constexpr CK_VERSION kVersion = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR};
constexpr std::size_t kSuiteValueSize = 8;

struct Bridge {
  runtime::CCritical guard;  ///< for everything below
  Module module;             ///< once loaded, it stays
  Slots slots;
  std::unique_ptr<EventWatch> watch;  ///< from the first question for its descriptor on
  bool ours = false;                  ///< it was us who initialised the module, not somebody else
  unsigned waiting = 0;               ///< threads in C_WaitForSlotEvent
};

/// The module from C_Initialize to the begin of C_Finalize, and the process that initialised it
/// until the end of C_Finalize, else 0. Read without the lock by what goes straight through.
constinit std::atomic<const CK_FUNCTION_LIST*> running = nullptr;
constinit std::atomic<pid_t> process = 0;

/// Null in a forked child, too, until it initialises for itself, as the standard asks of it.
const CK_FUNCTION_LIST* Running() {
  const CK_FUNCTION_LIST* const module = running.load(std::memory_order_acquire);
  return module != nullptr && process.load(std::memory_order_relaxed) == ::getpid() ? module
                                                                                    : nullptr;
}

bool IsForked() {
  const pid_t owner = process;
  return owner != 0 && owner != ::getpid();
}

/// Never destroyed: a program may call from its own static destructors.
Bridge& TheBridge() {
  static runtime::NoDestructor<Bridge> bridge;
  return *bridge;
}

/// Calls `operation` with the bridge, whose lock it holds.
template <typename Operation>
CK_RV AnswerLocked(const Operation& operation) {
  return pkcs11::AnswerOf([&operation]() -> CK_RV {
    Bridge& bridge = TheBridge();
    const runtime::CriticalScope hold(&bridge.guard);
    return operation(bridge);
  });
}

/// An entry that goes on into the module. Not even the lock is touched before it runs: in a forked
/// child another thread, which is not there, may hold it.
template <typename Operation>
CK_RV AnswerWithModule(const Operation& operation) {
  return pkcs11::AnswerOf([&operation]() -> CK_RV {
    const CK_FUNCTION_LIST* const module = Running();
    return module == nullptr ? CKR_CRYPTOKI_NOT_INITIALIZED : operation(*module);
  });
}

/// An entry that uses the slots, one at a time.
template <typename Operation>
CK_RV AnswerWithSlots(const Operation& operation) {
  return AnswerWithModule([&operation](const CK_FUNCTION_LIST&) {
    return AnswerLocked([&operation](Bridge& bridge) -> CK_RV {
      // It may have ended while the lock was waited for.
      return Running() == nullptr ? CKR_CRYPTOKI_NOT_INITIALIZED : operation(bridge.slots);
    });
  });
}

/// An entry for one slot: called with the module's id of it, without the lock.
template <typename Operation>
CK_RV AnswerForSlot(CK_SLOT_ID number, const Operation& operation) {
  CK_SLOT_ID id = 0;
  const CK_RV result = AnswerWithSlots([&](Slots& slots) -> CK_RV {
    const std::optional<CK_SLOT_ID> known = slots.ToModule(number);
    id = known.value_or(0);
    return known ? CKR_OK : CKR_SLOT_ID_INVALID;
  });
  if (result != CKR_OK) return result;
  return AnswerWithModule([&](const CK_FUNCTION_LIST& module) { return operation(module, id); });
}

// --- life ---------------------------------------------------------------------------------------

/// Leaves a module alone that somebody else initialised. One that fails here stays ours, unless
/// somebody else has finalised it.
CK_RV FinalizeModule(Bridge* bridge) {
  const CK_RV result = bridge->ours ? bridge->module.functions->C_Finalize(nullptr) : CKR_OK;
  if (result == CKR_OK || result == CKR_CRYPTOKI_NOT_INITIALIZED) bridge->ours = false;
  return result;
}

/// Null as long as nobody has asked for the descriptor in this process.
EventWatch* WatchOf(Bridge& bridge) {
  if (bridge.watch != nullptr && !bridge.watch->IsOurs()) bridge.watch.release()->Abandon();
  return bridge.watch.get();
}

/// In a child that was forked in between. What runs goes on in the parent.
void Abandon(Bridge& bridge) {
  bridge.slots.Abandon();
  bridge.ours = false;
  bridge.waiting = 0;
}

CK_RV Begin(Bridge& bridge, CK_VOID_PTR initArgs) {
  if (process == ::getpid()) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
  if (process != 0) Abandon(bridge);
  if (bridge.module.functions == nullptr) bridge.module = LoadModule();
  const CK_FUNCTION_LIST* const module = bridge.module.functions;
  if (module == nullptr) return CKR_GENERAL_ERROR;
  const CK_RV result = module->C_Initialize(initArgs);
  if (result != CKR_OK && result != CKR_CRYPTOKI_ALREADY_INITIALIZED) return result;
  if (result == CKR_OK) bridge.ours = true;
  // When memory runs out on the way, the module does not stay initialised.
  std::unique_ptr<Bridge, decltype(&FinalizeModule)> undo(&bridge, &FinalizeModule);
  bridge.slots.Begin(*module, bridge.module.filter);
  if (EventWatch* const watch = WatchOf(bridge)) watch->Start(bridge.module.filter);
  (void)undo.release();
  process = ::getpid();
  running.store(module, std::memory_order_release);
  return CKR_OK;
}

/// `bridge.guard` is held once when this is called, and is given back while threads leave.
CK_RV End(Bridge& bridge) {
  if (Running() == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
  running = nullptr;
  while (bridge.waiting != 0) {
    bridge.guard.Leave();
    ::nanosleep(&kLeavePause, nullptr);
    bridge.guard.Enter();
  }
  if (bridge.watch != nullptr) bridge.watch->Stop();
  bridge.slots.End();
  const CK_RV result = FinalizeModule(&bridge);
  process = 0;
  return result;
}

// --- slots and events ---------------------------------------------------------------------------

/// The descriptor is lowered for the time of a poll: what comes after its begin raises it again. So
/// does the poll, unless it went well and left nothing.
CK_RV PollForEvent(Bridge& bridge, CK_SLOT_ID& number) {
  EventWatch* const watch = bridge.watch.get();
  if (watch == nullptr) return bridge.slots.TakeEvent(true, number);
  const bool wasRaised = watch->Event().Lower();
  const auto raise = [](EventWatch* raised) { raised->Event().Raise(); };
  std::unique_ptr<EventWatch, decltype(raise)> hasMore(watch, raise);
  for (const std::string& reader : watch->TakeGone()) bridge.slots.NoteGone(reader);
  const CK_RV result = bridge.slots.TakeEvent(wasRaised || !watch->TellsAll(), number);
  if (!bridge.slots.HasEvent()) (void)hasMore.release();
  return result;
}

/// `bridge.guard` is held once when this is called, and is given back between two polls.
CK_RV AwaitSlotEvent(Bridge& bridge, bool block, CK_SLOT_ID& number) {
  for (;;) {
    if (Running() == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
    const CK_RV result = PollForEvent(bridge, number);
    if (result != CKR_NO_EVENT || !block) return result;
    ++bridge.waiting;
    bridge.guard.Leave();
    ::nanosleep(&kWaitPause, nullptr);
    bridge.guard.Enter();
    --bridge.waiting;
  }
}

// --- the suite's attribute ----------------------------------------------------------------------

CK_RV AnswerZeros(CK_ATTRIBUTE& attribute) {
  if (attribute.pValue != nullptr) {
    if (attribute.ulValueLen < kSuiteValueSize) {
      attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
      return CKR_BUFFER_TOO_SMALL;
    }
    std::memset(attribute.pValue, 0, kSuiteValueSize);
  }
  attribute.ulValueLen = kSuiteValueSize;
  return CKR_OK;
}

/// The module's own value, else zeros. It is asked for alone: there are modules that answer nothing
/// of a list in which they do not know one. Others say that all is well and leave the length out.
CK_RV GetSuiteAttribute(const CK_FUNCTION_LIST& module, CK_SESSION_HANDLE session,
                        CK_OBJECT_HANDLE object, CK_ATTRIBUTE& attribute) {
  CK_ATTRIBUTE asked = attribute;
  const CK_RV result = module.C_GetAttributeValue(session, object, &asked, 1);
  const bool isLeftOut = result == CKR_OK && asked.ulValueLen == CK_UNAVAILABLE_INFORMATION;
  if (result == CKR_ATTRIBUTE_TYPE_INVALID || isLeftOut) return AnswerZeros(attribute);
  attribute.ulValueLen = asked.ulValueLen;
  return result;
}

/// The others in their order, then the suite's. The first failure counts.
CK_RV GetAttributes(const CK_FUNCTION_LIST& module, CK_SESSION_HANDLE session,
                    CK_OBJECT_HANDLE object, std::span<CK_ATTRIBUTE> attributes) {
  const auto isSuite = [](const CK_ATTRIBUTE& attribute) {
    return attribute.type == pkcs11::kSuiteAttribute;
  };
  if (std::ranges::none_of(attributes, isSuite)) {
    return module.C_GetAttributeValue(session, object, attributes.data(), attributes.size());
  }
  std::vector<CK_ATTRIBUTE> others;
  std::ranges::remove_copy_if(attributes, std::back_inserter(others), isSuite);
  CK_RV result = CKR_OK;
  if (!others.empty()) {
    result = module.C_GetAttributeValue(session, object, others.data(), others.size());
  }
  auto other = others.begin();
  for (CK_ATTRIBUTE& attribute : attributes) {
    if (!isSuite(attribute)) {
      attribute.ulValueLen = (other++)->ulValueLen;
      continue;
    }
    const CK_RV answer = GetSuiteAttribute(module, session, object, attribute);
    if (result == CKR_OK) result = answer;
  }
  return result;
}

// --- the standard's functions -------------------------------------------------------------------

/// A function whose first argument is a slot.
template <auto kFunction, typename... Arguments>
CK_RV PassOnForSlot(CK_SLOT_ID number, Arguments... arguments) {
  return AnswerForSlot(number, [&](const CK_FUNCTION_LIST& module, CK_SLOT_ID slot) {
    return (module.*kFunction)(slot, arguments...);
  });
}

/// As the list has them. They are not exported under their own names: in a program with two modules
/// the first one's would be called, by the other module too.
struct PlainEntries {
#define BRIDGE_ENTRY(name, parameters, arguments)                                   \
  static CK_RV name parameters {                                                    \
    return AnswerWithModule(                                                        \
        [&](const CK_FUNCTION_LIST& module) { return module.C_##name arguments; }); \
  }
  QIXX_CK_FUNCTIONS(BRIDGE_ENTRY)
#undef BRIDGE_ENTRY
};

/// Those in which the bridge has a part.
struct Entries : PlainEntries {
  static CK_RV Initialize(CK_VOID_PTR initArgs) {
    return AnswerLocked([&](Bridge& bridge) { return Begin(bridge, initArgs); });
  }
  static CK_RV Finalize(CK_VOID_PTR reserved) {
    return AnswerWithModule([&](const CK_FUNCTION_LIST&) -> CK_RV {
      return reserved != nullptr ? CKR_ARGUMENTS_BAD : AnswerLocked(&End);
    });
  }
  static CK_RV GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) { return C_GetFunctionList(list); }
  /// Of a newer standard the list here has no more than this one.
  static CK_RV GetInfo(CK_INFO_PTR info) {
    const CK_RV result = PlainEntries::GetInfo(info);
    if (result == CKR_OK && info != nullptr && info->cryptokiVersion.major > kVersion.major) {
      info->cryptokiVersion = kVersion;
    }
    return result;
  }

  static CK_RV GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
    return AnswerWithSlots([&](Slots& slots) -> CK_RV {
      if (count == nullptr) return CKR_ARGUMENTS_BAD;
      const auto [result, numbers] = slots.List(tokenPresent != CK_FALSE, list == nullptr);
      return result == CKR_OK ? pkcs11::HandOut(numbers, list, count) : result;
    });
  }
  static CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info) {
    std::optional<CK_SLOT_INFO> known;
    const CK_RV result = AnswerWithSlots([&](Slots& slots) -> CK_RV {
      if (info == nullptr) return CKR_ARGUMENTS_BAD;
      known = slots.Info(slot);
      if (known) *info = *known;
      return CKR_OK;
    });
    if (result != CKR_OK || known) return result;
    return PassOnForSlot<&CK_FUNCTION_LIST::C_GetSlotInfo>(slot, info);
  }
  static CK_RV WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved) {
    return AnswerWithModule([&](const CK_FUNCTION_LIST&) -> CK_RV {
      if (slot == nullptr || reserved != nullptr) return CKR_ARGUMENTS_BAD;
      return AnswerLocked([&](Bridge& bridge) {
        return AwaitSlotEvent(bridge, (flags & CKF_DONT_BLOCK) == 0, *slot);
      });
    });
  }

#define BRIDGE_SLOT_ENTRY(name) \
  static constexpr CK_C_##name name = &PassOnForSlot<&CK_FUNCTION_LIST::C_##name>;
  BRIDGE_SLOT_ENTRY(GetTokenInfo)
  BRIDGE_SLOT_ENTRY(GetMechanismList)
  BRIDGE_SLOT_ENTRY(GetMechanismInfo)
  BRIDGE_SLOT_ENTRY(InitToken)
  BRIDGE_SLOT_ENTRY(OpenSession)
  BRIDGE_SLOT_ENTRY(CloseAllSessions)
#undef BRIDGE_SLOT_ENTRY

  static CK_RV GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info) {
    const CK_RV result = PlainEntries::GetSessionInfo(session, info);
    if (result != CKR_OK || info == nullptr) return result;
    return AnswerWithSlots([&](Slots& slots) -> CK_RV {
      info->slotID = slots.FromModule(info->slotID).value_or(0);
      return CKR_OK;
    });
  }
  static CK_RV GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                 CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
    return AnswerWithModule([&](const CK_FUNCTION_LIST& module) {
      if (attributes == nullptr) {
        return module.C_GetAttributeValue(session, object, attributes, count);
      }
      return GetAttributes(module, session, object, std::span(attributes, count));
    });
  }
};

// --- the extension ------------------------------------------------------------------------------

/// Calls `operation` with the module's id of the first slot that holds a token.
template <typename Operation>
CK_RV AnswerForFirstToken(const Operation& operation) {
  CK_SLOT_ID first = 0;
  const CK_RV result = AnswerWithSlots([&](Slots& slots) -> CK_RV {
    const auto [listed, numbers] = slots.List(true, true);
    if (listed == CKR_OK && !numbers.empty()) first = numbers.front();
    return listed == CKR_OK && first == 0 ? CKR_TOKEN_NOT_PRESENT : listed;
  });
  return result == CKR_OK ? AnswerForSlot(first, operation) : result;
}

/// Functions that no standard module could serve.
struct RefusedExtension {
#define BRIDGE_REFUSE(name, parameters, arguments) \
  [[maybe_unused]] static constexpr pkcs11::name##Function name = &pkcs11::Refuse;
  QIXX_CK_EXTENSIONS(BRIDGE_REFUSE)
#undef BRIDGE_REFUSE
};

/// Those that the bridge serves.
struct Extension : RefusedExtension {
  /// Ends all sessions and begins again.
  static CK_RV Reinitialize(CK_VOID_PTR initArgs) {
    return AnswerLocked([&](Bridge& bridge) {
      (void)End(bridge);
      return Begin(bridge, initArgs);
    });
  }
  /// C_GetSlotList under another name.
  static CK_RV ListCards(CK_BYTE tokenPresent, CK_VOID_PTR slots, CK_VOID_PTR count) {
    return Entries::GetSlotList(tokenPresent, static_cast<CK_SLOT_ID_PTR>(slots),
                                static_cast<CK_ULONG_PTR>(count));
  }
  /// Writes a token variable to the first token; a null or empty value takes it away. The token
  /// decides whether that takes a login, which is the caller's business.
  static CK_RV SetVariable(CK_ULONG name, CK_ULONG value) {
    return AnswerForFirstToken([&](const CK_FUNCTION_LIST& module, CK_SLOT_ID slot) {
      return WriteVariable(module, slot, runtime::ViewOf(std::bit_cast<const char*>(name)),
                           runtime::ViewOf(std::bit_cast<const char*>(value)));
    });
  }
  /// Copies a token variable of the first token into the buffer, whose size goes in and whose
  /// length comes out by `size`, as with an attribute's value: a null buffer asks for the length.
  /// CKR_DATA_INVALID when there is no such variable.
  static CK_RV GetVariable(CK_ULONG name, CK_ULONG buffer, CK_ULONG size) {
    return AnswerForFirstToken([&](const CK_FUNCTION_LIST& module, CK_SLOT_ID slot) -> CK_RV {
      auto* const length = std::bit_cast<CK_ULONG_PTR>(size);
      if (name == 0 || length == nullptr) return CKR_ARGUMENTS_BAD;
      const auto [result, text] = ReadVariable(module, slot, std::bit_cast<const char*>(name));
      if (result != CKR_OK) return result;
      const CK_ULONG room = *length;
      *length = text.size() + 1;  // the terminator counts
      if (buffer == 0) return CKR_OK;
      if (room < *length) return CKR_BUFFER_TOO_SMALL;
      std::copy_n(text.c_str(), *length, std::bit_cast<char*>(buffer));
      return CKR_OK;
    });
  }
};

}  // namespace

// --- what leaves the library --------------------------------------------------------------------

#define BRIDGE_EXPORT(name, parameters, arguments) \
  QIXX_CK_EXPORT CK_RV C_##name parameters {       \
    return Extension::name arguments;              \
  }
QIXX_CK_EXTENSIONS(BRIDGE_EXPORT)
#undef BRIDGE_EXPORT

QIXX_CK_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
#define BRIDGE_STANDARD(name, parameters, arguments) Entries::name,
#define BRIDGE_EXTENSION(name, parameters, arguments) &C_##name,
  // Not constant: who loads the library writes what it finds by name into the extension's slots.
  static pkcs11::ExtendedFunctionList functions = {
      {kVersion, QIXX_CK_FUNCTIONS(BRIDGE_STANDARD)},
      {QIXX_CK_SLOTS_1_TO_6(BRIDGE_EXTENSION) nullptr,
       QIXX_CK_SLOTS_8_TO_9(BRIDGE_EXTENSION) QIXX_CK_SLOTS_10_TO_11(BRIDGE_EXTENSION)}};
#undef BRIDGE_STANDARD
#undef BRIDGE_EXTENSION
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  *list = &functions.standard;
  return CKR_OK;
}

/// A descriptor that is readable when a poll for slot events would have something to tell, as far
/// as PC/SC knows; a poll that leaves nothing makes it unreadable. The same for the life of the
/// process, close-on-exec, and not the caller's to read or close; without PC/SC, and in a forked
/// child before its C_Initialize, -1. The first call starts a thread of the bridge's own, which
/// runs between C_Initialize and C_Finalize.
QIXX_CK_EXPORT int QixEventDescriptor() {
  int descriptor = -1;
  if (IsForked()) return descriptor;
  (void)AnswerLocked([&descriptor](Bridge& bridge) -> CK_RV {
    if (!HasPcsc()) return CKR_FUNCTION_NOT_SUPPORTED;
    if (WatchOf(bridge) == nullptr) {
      bridge.watch = std::make_unique<EventWatch>();
      if (Running() != nullptr) bridge.watch->Start(bridge.module.filter);
    }
    descriptor = bridge.watch->Event().Get();
    return CKR_OK;
  });
  return descriptor;
}

/// Whether events of the slot are told, 1 or 0; -1 for an unknown slot and without a module.
QIXX_CK_EXPORT int QixSlotCounts(CK_SLOT_ID slot) {
  std::optional<bool> counts;
  (void)AnswerWithSlots([&counts, slot](Slots& slots) -> CK_RV {
    counts = slots.Counts(slot);
    return CKR_OK;
  });
  return counts ? static_cast<int>(*counts) : -1;
}

/// The caller takes no notice of the card in the slot. When it is the card that was told of, it
/// keeps nothing back any more, and nothing more is told of it.
QIXX_CK_EXPORT void QixPassOver(CK_SLOT_ID slot) {
  (void)AnswerWithSlots([slot](Slots& slots) -> CK_RV {
    slots.PassOver(slot);
    return CKR_OK;
  });
}

/// Why the last C_Initialize found no module, empty when it found one. Holds up to the next one.
QIXX_CK_EXPORT const char* QixModuleFault() {
  const char* fault = "";
  if (IsForked()) return fault;
  (void)AnswerLocked([&fault](Bridge& bridge) {
    fault = bridge.module.fault.c_str();
    return CKR_OK;
  });
  return fault;
}

}  // namespace qixx::bridge
