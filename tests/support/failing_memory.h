// Allocations that fail when a test wants them to. For one source file of a test program, since it
// replaces the program's operators.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

/// How many allocations succeed before one fails; negative for all.
inline int allocationsLeft = -1;

// Not inlined, because a compiler that sees new beside free takes them for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
// The library's own temporary buffers ask in this form.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
