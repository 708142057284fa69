// A list of pointers shared by threads. Each operation holds the list's mutex, so
// operations never interleave.
//
// A null list gives 2 with EINVAL recorded.
#pragma once

#include <cstdint>

struct vx_list;

/// An empty list; null with the error recorded when it cannot be made. Lists last
/// for the process.
[[nodiscard]] vx_list* vx_list_new();

/// Puts `entry` (not null) first. Returns 0 or a library error code; 53 (ENOMEM)
/// leaves the list unchanged.
int32_t vx_list_add_first(vx_list* list, void* entry);

/// Removes the first entry equal to `entry`. Returns 0; 49 (ENOENT) when there is
/// none.
int32_t vx_list_remove(vx_list* list, const void* entry);

/// Removes the first entry and returns it; null when the list is empty.
[[nodiscard]] void* vx_list_take_first(vx_list* list);
