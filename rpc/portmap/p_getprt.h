// Asks a host's port mappers on which port a program is served ("get port"; RFC 1833,
// section 3). pmap.h has the protocol, pmap_cache.h what is known without asking. Two are
// asked: first the runtime's own one on port 7938, then the standard one on port 111. For a
// program over UDP each gets one datagram, and a silent one costs 25 s. Over TCP connecting
// takes as long as the system tries, and each reading of the answer at most 25 s.
#pragma once

#include <netinet/in.h>

#include <cstdint>

/// The port, in host order, on which `program` and `version` of the IP protocol
/// `protocol` are served at `server`; 0 when there is none. The address's own port is
/// ignored, and is 0 afterwards. On 0 the thread's creation error (rpcvarp.h) says
/// why: RPC_PMAPFAILURE with the failed call's error as its cause,
/// RPC_PROGNOTREGISTERED, or what a client could not be made for; the last port
/// mapper's counts.
///
/// For an address of this host the thread's port cache (pmap_cache.h) answers first, without
/// any traffic. Answers of the runtime's own port mapper for this host are put into it.
/// Thread safe.
[[nodiscard]] uint16_t __brix_pmap_getport(sockaddr_in* server, unsigned long program,
                                           unsigned long version, unsigned long protocol);

/// A last resort for programs that no port mapper knows; 0: it knows no port either.
using pmap_fallback_function = uint16_t (*)(unsigned long program, unsigned long version,
                                            unsigned long protocol);

/// Installs `function` (null: none), which is asked when the standard port mapper gave no
/// port. Thread safe.
void pmap_fallback(pmap_fallback_function function);
