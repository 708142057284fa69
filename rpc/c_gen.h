// The entrance of the RPC runtime: making clients ("generic"), from a host's name, a
// program and the name of a transport to a handle that calls can be made with (clnt.h).
//
// Where a result is null, the calling thread's creation error (rpcvarp.h) says why,
// unless it says otherwise; success does not clear it. Thread safe.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstdint>

#include "liblocal/base/version.h"
#include "rpc/handle/clnt.h"

/// A client of `program` and `version` on `host`, with the transport's own buffer
/// sizes. Give it back with its destroy operation.
///
/// `host` null, empty, or a name or address of this host means 127.0.0.1; leading
/// white space is skipped. `transport` is compared without regard to letter case;
/// null or empty means the value of the environment variable "KIV_TRANSPORT",
/// and "tcp" when that is unset:
/// - "udp": the UDP transport (c_udp.h); a call is sent every 5 s and given up after
///   25 s;
/// - "tcp", "pipe", "shm", "spp": the connection transport (c_tcp.h); a call is given up
///   when one reading takes 30 s.
///
/// Creation asks the host's two port mappers for the port, over the same transport; a
/// silent one costs 25 s over UDP (p_getprt.h).
///
/// Errors: RPC_UNKNOWNHOST; RPC_SYSTEMERROR with EAFNOSUPPORT (the host has no IPv4
/// address) or EPFNOSUPPORT (unknown transport); those of the transport and of the
/// port mappers. An empty "KIV_TRANSPORT" gives null and leaves the error as it was.
[[nodiscard]] CLIENT* __brix_clnt_create(const char* host, unsigned long program,
                                         unsigned long version, const char* transport);

/// __brix_clnt_create with the transport's buffer sizes in bytes; 0: its own. UDP
/// always takes its own.
[[nodiscard]] CLIENT* clnt_buf_create(const char* host, unsigned long program,
                                      unsigned long version, const char* transport,
                                      uint32_t send_size, uint32_t receive_size);

/// A client at the address `server`, whose port is filled in when it is 0: over UDP
/// with a retransmission interval (the sizes are then not used), over a connection
/// with `retry` null. `*socket` is an open socket, or -1 for a new one, which is
/// stored there. Null, with the creation error as it was, for an address that is not
/// IPv4.
[[nodiscard]] CLIENT* clntgen_create(sockaddr_in* server, unsigned long program,
                                     unsigned long version, const timeval* retry, int* socket,
                                     uint32_t send_size, uint32_t receive_size);

/// __brix_clnt_create with the authentication methods that are `allowed` (a mask,
/// kAuthMethods in clnt.h): over a connection, those that the transport allows too become
/// the client's. It starts with the flavour none, whatever the mask.
[[nodiscard]] CLIENT* clnt_create_with_auth(const char* host, unsigned long program,
                                            unsigned long version, const char* transport,
                                            uint32_t allowed);
