#include "softcard/entries.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <thread>

#include "pkcs11/entry.h"
#include "softcard/faults.h"
#include "softcard/module.h"

namespace qixx::softcard {
namespace {

/// How often the folder is looked at while a thread waits for a slot event.
constexpr std::chrono::milliseconds kPollInterval(100);
/// How often C_Finalize looks whether the waiting threads have left.
constexpr std::chrono::milliseconds kLeaveInterval(5);

/// Never destroyed: a program may call the module from its own static destructors.
struct Life {
  std::mutex guard;          ///< for everything below and the function list
  Module* module = nullptr;  ///< owned, from C_Initialize to C_Finalize
  bool isEnding = false;     ///< C_Finalize waits for the threads in C_WaitForSlotEvent
  unsigned waiting = 0;      ///< their number
  bool isListFilled = false;

  [[nodiscard]] bool IsRunning() const { return module != nullptr && !isEnding; }
};
constinit Life life;

/// Lets the other threads in for a while.
void Pause(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds time) {
  lock.unlock();
  std::this_thread::sleep_for(time);
  lock.lock();
}

/// Any entry: the prescribed misbehaviour or answer, or the operation.
template <typename Operation>
CK_RV Answer(const char* function, Operation operation) {
  const std::vector<Setting> orders = Misbehave(function);
  return pkcs11::AnswerOf([&]() -> CK_RV {
    const std::optional<CK_RV> fault = NoteCall(function, orders);
    return fault ? *fault : operation();
  });
}

/// An entry that needs the running module, and has it for itself.
template <typename Operation>
CK_RV AnswerWithModule(const char* function, Operation operation) {
  return Answer(function, [&operation]() -> CK_RV {
    const std::lock_guard<std::mutex> lock(life.guard);
    if (!life.IsRunning()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    return operation(*life.module);
  });
}

/// The module locks with the system's own means: it can do with these and with no others.
CK_RV CheckInitArgs(CK_VOID_PTR initArgs) {
  if (initArgs == nullptr) return CKR_OK;
  const auto& args = *static_cast<const CK_C_INITIALIZE_ARGS*>(initArgs);
  const int given = (args.CreateMutex != nullptr) + (args.DestroyMutex != nullptr) +
                    (args.LockMutex != nullptr) + (args.UnlockMutex != nullptr);
  if (args.pReserved != nullptr || (given != 0 && given != 4)) return CKR_ARGUMENTS_BAD;
  if (given == 4 && (args.flags & CKF_OS_LOCKING_OK) == 0) return CKR_CANT_LOCK;
  return CKR_OK;
}

CK_RV Begin(CK_VOID_PTR initArgs) {
  if (const CK_RV fault = CheckInitArgs(initArgs); fault != CKR_OK) return fault;
  if (life.module != nullptr) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
  life.module = new Module(ThisVariant().suite);
  return CKR_OK;
}

CK_RV End(std::unique_lock<std::mutex>& lock) {
  if (!life.IsRunning()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  life.isEnding = true;
  while (life.waiting != 0) Pause(lock, kLeaveInterval);
  delete life.module;
  life.module = nullptr;
  life.isEnding = false;
  return CKR_OK;
}

CK_RV AwaitSlotEvent(CK_FLAGS flags, CK_SLOT_ID& slot, std::unique_lock<std::mutex>& lock) {
  if (!life.IsRunning()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  CK_RV result = life.module->TakeSlotEvent(slot);
  while (result == CKR_NO_EVENT && (flags & CKF_DONT_BLOCK) == 0) {
    ++life.waiting;
    Pause(lock, kPollInterval);
    --life.waiting;
    result = life.isEnding ? CKR_CRYPTOKI_NOT_INITIALIZED : life.module->TakeSlotEvent(slot);
  }
  return result;
}

/// The standard's functions as the list has them. They are not exported under their own names: in a
/// program with two modules the first one's would be called.
struct GuardedEntries {
#define SOFTCARD_ENTRY(name, parameters, arguments)                                             \
  static CK_RV name parameters {                                                                \
    return AnswerWithModule("C_" #name, [&](Module& module) { return module.name arguments; }); \
  }
  QIXX_CK_FUNCTIONS(SOFTCARD_ENTRY)
#undef SOFTCARD_ENTRY
};

/// These four do not find a running module or do not keep it for themselves.
struct Entries : GuardedEntries {
  static CK_RV Initialize(CK_VOID_PTR initArgs) {
    return Answer("C_Initialize", [&] {
      const std::lock_guard<std::mutex> lock(life.guard);
      return Begin(initArgs);
    });
  }

  static CK_RV Finalize(CK_VOID_PTR reserved) {
    return Answer("C_Finalize", [&]() -> CK_RV {
      if (reserved != nullptr) return CKR_ARGUMENTS_BAD;
      std::unique_lock<std::mutex> lock(life.guard);
      return End(lock);
    });
  }

  static CK_RV WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved) {
    return Answer("C_WaitForSlotEvent", [&]() -> CK_RV {
      if (slot == nullptr || reserved != nullptr) return CKR_ARGUMENTS_BAD;
      std::unique_lock<std::mutex> lock(life.guard);
      return AwaitSlotEvent(flags, *slot, lock);
    });
  }

  static CK_RV GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
    return softcard::GetFunctionList(list);
  }
};

void FillList(CK_FUNCTION_LIST& list) {
  list.version = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR};
#define SOFTCARD_FILL(name, parameters, arguments) \
  list.C_##name = IsOmitted("C_" #name) ? nullptr : &Entries::name;
  QIXX_CK_FUNCTIONS(SOFTCARD_FILL)
#undef SOFTCARD_FILL
}

}  // namespace

CK_RV GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  return Answer("C_GetFunctionList", [&]() -> CK_RV {
    if (list == nullptr) return CKR_ARGUMENTS_BAD;
    const std::lock_guard<std::mutex> lock(life.guard);
    CK_FUNCTION_LIST* const own = ThisVariant().list;
    if (!life.isListFilled) FillList(*own);
    life.isListFilled = true;
    *list = IsOmitted("C_GetFunctionList") ? nullptr : own;
    return CKR_OK;
  });
}

CK_RV Reinitialize(CK_VOID_PTR initArgs) {
  return Answer("C_Reinitialize", [&] {
    std::unique_lock<std::mutex> lock(life.guard);
    (void)End(lock);
    return Begin(initArgs);
  });
}

CK_RV ListCards(CK_BYTE tokenPresent, CK_VOID_PTR slots, CK_VOID_PTR count) {
  return AnswerWithModule("C_ListCards", [&](Module& module) {
    return module.GetSlotList(tokenPresent, static_cast<CK_SLOT_ID_PTR>(slots),
                              static_cast<CK_ULONG_PTR>(count));
  });
}

CK_RV RefuseExtension(const char* function) {
  return Answer(function, [] { return CKR_FUNCTION_NOT_SUPPORTED; });
}

}  // namespace qixx::softcard
