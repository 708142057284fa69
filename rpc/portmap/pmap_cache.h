// The port cache: where the runtime's own TCP services are on this host. Each thread
// has one; it begins with the contents of the environment variable
// "KIVENV_PMAPS", by which processes that this one starts get it, too.
//
// The variable holds groups "{program,version,protocol,port}" of decimal numbers with
// nothing between them. Reading stops at the first text of another form.
//
// Thread safety: all operations may be called from any thread and work on that
// thread's cache. Exporting changes the environment (see liblocal/startup/vxenv.h).
#pragma once

#include <cstddef>
#include <cstdint>

#include "rpc/portmap/pmap.h"

constexpr size_t kPmapsSize = 12288;  //!< bytes of the variable's value with its NUL

/// The port that the calling thread's cache has for a program; 0 when there is none or
/// caches are switched off.
[[nodiscard]] unsigned long pmap_cached_port(unsigned long program, unsigned long version,
                                             unsigned long protocol);

/// Whether answers about this program are kept: it is one of the runtime's own services, and
/// caches are not switched off.
[[nodiscard]] bool pmap_is_cacheable(unsigned long program, unsigned long protocol);

/// Puts an answer that is cacheable into the cache, or its port into the entry that is
/// there. Other answers are left out, as is one that there is no memory for. With
/// `export_cache` other than 0 the whole cache is then put into the environment, up to
/// kPmapsSize.
void populate_pmaps(unsigned long program, unsigned long version, unsigned long protocol,
                    unsigned long port, int export_cache);

/// Exports the calling thread's cache if it has an entry for the program over TCP.
void add_pamp_to_env(unsigned long program, unsigned long version);

/// Switches the caches of all threads off, for good: they are neither read nor filled.
void disable_cacheable_pmap();

/// Reads one group at `text` into `*mapping`. Returns the text behind it; null when there is
/// no whole group. A number may have a sign; text that is none gives 0.
[[nodiscard]] const char* pmap_parse_group(const char* text, pmap* mapping);
