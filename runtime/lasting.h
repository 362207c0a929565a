// Objects that last until the process is gone.
#pragma once

#include <new>

namespace qixx::runtime {

/// Holds an object in its own storage and never destroys it: `static Lasting<CCritical> lock;`. A
/// command on a thread of its own, or a destructor of somebody else's static object, may still use
/// it while the process ends.
template <typename Type>
class Lasting {
 public:
  Lasting() { new (storage_) Type; }
  Lasting(const Lasting&) = delete;
  Lasting& operator=(const Lasting&) = delete;

  Type& operator*() { return *std::launder(reinterpret_cast<Type*>(storage_)); }

 private:
  alignas(Type) unsigned char storage_[sizeof(Type)];
};

}  // namespace qixx::runtime
