// Descriptors that are kept for the commands of an event.
#pragma once

#include <fcntl.h>

#include <array>

#include "runtime/descriptor.h"

namespace qixx::watch {

/// A library that leaks descriptors until there are none left must keep no removal from being run:
/// its configuration has to be opened. So some are held, and given back for the time of an event.
class DescriptorReserve {
 public:
  DescriptorReserve() { Fill(); }

  void Release() {
    for (runtime::Descriptor& held : held_) held.Close();
  }
  /// Takes as many as there are.
  void Fill() {
    for (runtime::Descriptor& held : held_) {
      if (!held.IsOpen()) held = runtime::Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
  }

 private:
  std::array<runtime::Descriptor, 8> held_;
};

}  // namespace qixx::watch
