// Ownership of memory from the C allocators.
#pragma once

#include <cstdlib>
#include <memory>

/// The deleter of c_unique_ptr.
struct CFree {
  /// Frees `memory`.
  void operator()(void* memory) const { free(memory); }
};

/// Owns memory from malloc, calloc, realloc or strdup.
template <typename T>
using c_unique_ptr = std::unique_ptr<T, CFree>;

/// A new T{}, or null without memory. It calls malloc, which reuses small pieces twice as
/// fast as calloc: a program that sends many traps feels it.
template <typename T>
[[nodiscard]] T* c_new() {
  auto* memory = static_cast<T*>(malloc(sizeof(T)));
  if (memory != nullptr) *memory = {};
  return memory;
}
