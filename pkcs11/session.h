// Slots, sessions and searches of the process-wide wrapper, with owners.
//
// A library may answer anything: counts are checked before they are used. All of this is used from
// one thread at a time, like the wrapper.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "pkcs11/cryptoki.h"

namespace qixx::pkcs11 {

struct SlotList {
  CK_RV result;  ///< of the first call that failed
  std::vector<CK_SLOT_ID> slots;
};

/// All slots, or those that hold a token, in the library's order. None when a call fails, so also
/// when one more appears between the call for their number and the one for the slots.
[[nodiscard]] SlotList ListSlots(CK_BBOOL withToken);
/// The slots that hold a token, by ListSlots.
[[nodiscard]] std::vector<CK_SLOT_ID> ListTokenSlots();

/// An open session, closed with its owner.
class Session {
 public:
  /// Opens a read-write session. Nothing when the library refuses; its answer then goes to
  /// `refusal`, which may be null.
  [[nodiscard]] static std::optional<Session> Open(CK_SLOT_ID slot, CK_RV* refusal = nullptr);
  ~Session();
  Session(Session&& other) noexcept;
  Session& operator=(Session&&) = delete;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  [[nodiscard]] CK_SESSION_HANDLE Handle() const { return handle_; }

 private:
  explicit Session(CK_SESSION_HANDLE handle) : handle_(handle) {}

  CK_SESSION_HANDLE handle_;
  bool owned_ = true;
};

enum class SearchResult { kObject, kNothing, kFailure };

struct FoundObject {
  SearchResult result;
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;  ///< for kObject
};

/// A search for objects, ended with its owner. A search that could not be started has failed, and
/// is not ended.
class ObjectSearch {
 public:
  ObjectSearch(const Session& session, std::span<CK_ATTRIBUTE> attributes);
  ~ObjectSearch();
  ObjectSearch(const ObjectSearch&) = delete;
  ObjectSearch& operator=(const ObjectSearch&) = delete;

  [[nodiscard]] FoundObject Next();
  /// Leaves the search to the end of its session.
  void Abandon() { active_ = false; }

 private:
  CK_SESSION_HANDLE session_;
  bool active_;
};

/// The first object with these attributes.
[[nodiscard]] FoundObject FindFirstObject(const Session& session,
                                          std::span<CK_ATTRIBUTE> attributes);

/// An object with the session in which it can be used.
struct SessionObject {
  CK_SLOT_ID slot;
  Session session;
  CK_OBJECT_HANDLE object;
};
/// Opens a session on the slot and finds the first object with these attributes.
[[nodiscard]] std::optional<SessionObject> FindObjectOnSlot(CK_SLOT_ID slot,
                                                            std::span<CK_ATTRIBUTE> attributes);

/// An attribute whose value is all of `value`, to be read or written.
template <typename Value>
CK_ATTRIBUTE AttributeOf(CK_ATTRIBUTE_TYPE type, Value& value) {
  return {type, &value, sizeof(value)};
}

/// An attribute whose value the library only reads.
inline CK_ATTRIBUTE AttributeOf(CK_ATTRIBUTE_TYPE type, const void* bytes, std::size_t length) {
  return {type, const_cast<void*>(bytes), length};
}

}  // namespace qixx::pkcs11
