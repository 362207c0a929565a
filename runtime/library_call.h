// Calls into somebody else's library, which may throw, end its thread or have the program
// terminated instead of coming back.
#pragma once

namespace qixx::runtime {

/// Runs `call(context)`. False when it did not come back; see CallLibrary.
[[nodiscard]] bool ContainCall(void (*call)(const void* context), const void* context);

/// Runs a call into somebody else's library; false when it did not come back, because it
/// - threw,
/// - ended its thread (pthread_exit, cancellation): the thread goes on behind the call,
/// - threw where nothing may be thrown: in a noexcept function, or in the constructor of a static
///   object. That needs ContainTermination to have been called.
/// Nothing comes through. The operation is to hold nothing that has a destructor. What the library
/// itself left undone, a lock that it took above all, stays so.
template <typename Operation>
[[nodiscard]] bool CallLibrary(const Operation& operation) {
  return ContainCall([](const void* context) { (*static_cast<const Operation*>(context))(); },
                     &operation);
}

/// Takes over what std::terminate does, for calls made by CallLibrary alone. For programs; a
/// library leaves it to the program that loads it.
void ContainTermination();

}  // namespace qixx::runtime
