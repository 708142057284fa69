// The clients that a program has added: which of their names belong together.
//
// The resolver is never asked. A client is known for an hour after it was added, or for ever
// with update style 1. Letter case does not count.
//
// Thread safety: all operations may be called from any thread. They share the lock of the
// resolver's hosts and wait while the resolver is asked (hostlist_cache.h).
#pragma once

#include <cstdint>

/// The update style with which clients never expire.
constexpr int32_t kClientsNeverExpire = 1;

/// Adds the client `name` with its other names `aliases` (ended by a null; or null). Another
/// client that has one of the names is forgotten. Returns 1 when it was added; 0 when `name`
/// is null or, after a message, without memory.
int client_list_add_client(const char* name, const char* const* aliases);

/// Forgets the client of `name`, with all its names.
void client_list_remove_byname(const char* name);

/// 1 when both names belong to one client, or differ in letter case at most, else 0; 0 when one
/// is null.
[[nodiscard]] int sameclient(const char* name1, const char* name2);

/// A copy of the first name of the client of `name`, to be freed by the caller; null when there
/// is none or, after a message, without memory.
[[nodiscard]] char* get_primaryclientname(const char* name);

/// The update style, 0 at first.
[[nodiscard]] int32_t get_client_cache_update_style();
/// Sets the update style for clients that are added from then on.
void set_client_cache_update_style(int32_t style);

/// Forgets all clients and the update style, and frees their memory. The process block
/// calls it at exit.
void free_client_hostlist_cache();
