// Ownership of memory from the C allocators.
#pragma once

#include <cstdlib>
#include <memory>

/// The deleter of c_unique_ptr.
struct CFree {
  /// Frees `memory`.
  void operator()(void* memory) const { free(memory); }
};

/// Owns what malloc and its kin returned.
template <typename T>
using c_unique_ptr = std::unique_ptr<T, CFree>;
