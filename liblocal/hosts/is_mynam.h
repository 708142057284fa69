// Hosts: this room has names, addresses and thread-safe look-ups. This header has which
// names mean this host, or the same host ("is my name").
//
// Names are not compared as texts: each is resolved, and all names and addresses of one
// host belong together (dns_cache.h). Known hosts are looked up again after 30 minutes,
// unknown names after 5; until then the resolver is not asked. Letter case does not
// count.
//
// Thread safety: all operations may be called from any thread; each has the host caches
// for itself while it runs, resolver included.
#pragma once

/// 1 when `name` denotes this host, else 0. Null and "localhost" do, without a look-up.
[[nodiscard]] int is_myname(const char* name);

/// 1 when both names denote one host, else 0. The same pointer, and names that differ in
/// letter case at most, do, without a look-up; otherwise null stands for this host.
[[nodiscard]] int samehost(const char* name1, const char* name2);

/// A copy of the first name of the host of `name` (null: of this host), to be freed by
/// the caller; null when it does not resolve, or after a message without memory.
[[nodiscard]] char* get_primaryhostname(const char* name);

/// 1 when `name` (null: this host) resolves, else 0.
[[nodiscard]] int is_validhostname(const char* name);
