// Reading and writing of clients over TCP, with their waits: what their record
// streams are made with. `transport` is a TcpRecord. A failure leaves its status in
// the record's error: RPC_CANTRECV or RPC_CANTSEND with the error number (ECONNRESET at
// the end of input and for an exception on the socket), RPC_TIMEDOUT, RPC_CANCELLED.
//
// When a wait function cancels after a transfer is done, the transfer counts, so that
// no byte is lost, and all further ones fail until the next call begins.
#pragma once

#include <cstdint>

struct TcpRecord;

/// An xdrrec_read.
int64_t tcp_read(void* transport, void* buffer, uint32_t length, void* second,
                 uint32_t second_length);

/// An xdrrec_write. While it waits for room and the record watches its input, what
/// arrives is read into the pending input.
int64_t tcp_write(void* transport, const void* buffer, uint32_t length, const void* second,
                  uint32_t second_length);

/// Makes the record's socket blocking or not. False with errno set.
[[nodiscard]] bool tcp_set_blocking(TcpRecord* record, bool blocking);
