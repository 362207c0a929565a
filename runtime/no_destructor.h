// Objects that last until the process is gone.
#pragma once

#include <new>
#include <utility>

namespace qixx::runtime {

/// Holds an object in its own storage and never destroys it: `static NoDestructor<CCritical>
/// lock;`. A command on a thread of its own, or a destructor of somebody else's static object, may
/// still use it while the process ends.
template <typename Type>
class NoDestructor {
 public:
  template <typename... Arguments>
  explicit NoDestructor(Arguments&&... arguments) {
    new (storage_) Type(std::forward<Arguments>(arguments)...);
  }
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;

  Type& operator*() { return *std::launder(reinterpret_cast<Type*>(storage_)); }
  Type* operator->() { return &**this; }

 private:
  alignas(Type) unsigned char storage_[sizeof(Type)];
};

}  // namespace qixx::runtime
