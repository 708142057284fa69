// Which names mean this host, or the same host ("is my name"). The other headers of this folder
// have names, addresses and thread-safe look-ups.
//
// Names are not compared as texts: each is resolved, and all names and addresses of one host
// belong together (dns_cache.h). Known hosts are looked up again after 30 minutes, unknown
// names after 5; until then the resolver is not asked. Letter case does not count.
//
// Whoever runs the reverse zone of an address decides here which names that address has, so
// do not authorise anybody by a name.
//
// Thread safety: all operations may be called from any thread, one after the other: a lock is
// held while the resolver is asked. The clean-up at exit takes that lock, so a silent name
// server delays `exit`, and a child that was forked while another thread was in one of these
// operations must end with `_exit`.
#pragma once

/// 1 when `name` denotes this host, else 0. Null and "localhost" denote it without a look-up.
/// The names of all operations may be in an answer of a vx_ts_ look-up (mtsfuncs.h).
[[nodiscard]] int is_myname(const char* name);

/// 1 when both names denote one host, else 0. Equal pointers, and names that differ in letter
/// case at most, give 1 without a look-up; otherwise null means this host.
[[nodiscard]] int samehost(const char* name1, const char* name2);

/// A copy of the first name of the host of `name` (null: of this host), to be freed by the
/// caller; null when `name` does not resolve or, after a message, without memory.
[[nodiscard]] char* get_primaryhostname(const char* name);

/// 1 when `name` (null: this host) resolves, else 0.
[[nodiscard]] int is_validhostname(const char* name);
