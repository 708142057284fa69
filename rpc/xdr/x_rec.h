// XDR record streams: XDR over a byte transport, cut into records by record marking
// (RFC 5531, section 11). Each fragment follows a 4-byte big-endian header whose high
// bit marks the last fragment of a record and whose other bits are its length.
//
// Sending fills a buffer; a fragment is sent when the buffer is full or the record
// ends. Reading fails at the record's end, whatever is buffered behind it, until
// __brix_xdrrec_skiprecord moves to the next record. A new stream is at the end of an
// empty record, so receiving begins with that call.
//
// get_position and set_position count within the buffered part of the current
// fragment, and move within it only; get_inline gives 4-byte aligned memory that lies
// wholly in the buffer; get_remaining is kXdrRemainingUnknown; control answers false to every
// request; get_long extends by zeros.
//
// A transfer that fails loses nothing that arrived: the next read continues where it
// stopped. A record of which nothing was sent is dropped when its sending fails, and
// records before it stay buffered. A record that was sent in part, and input that no
// stream of this runtime sends, break the stream for good.
//
// Memory: the two buffers, whatever the peer declares.
//
// Thread safety: as for every XDR stream.
#pragma once

#include <cstdint>

#include "rpc/xdr/xdr.h"

constexpr uint32_t kXdrRecMaxFragment = 16 << 20;  //!< bytes; longer ones are refused
constexpr uint32_t kXdrRecLargePut = 8000;         //!< bytes from which a put is not buffered

/// Reads what is there, at least one byte, into `buffer` of `length` bytes and, once
/// that is full, into `second` (null: none). Returns the number of bytes; 0 or less
/// when none could be read, and the read may then be tried again.
using xdrrec_read = int64_t (*)(void* transport, void* buffer, uint32_t length, void* second,
                                uint32_t second_length);

/// Writes the `length` bytes at `buffer` and then those at `second` (null: none).
/// Returns how many were written; fewer than all only on failure.
using xdrrec_write = int64_t (*)(void* transport, const void* buffer, uint32_t length,
                                 const void* second, uint32_t second_length);

/// Makes `xdrs` a record stream with buffers of rpc_buffer_size of the two sizes (for
/// sending at most the largest fragment and its header) over `transport`, which is
/// passed to `read` and `write` and stays the caller's. The caller sets
/// `xdrs->operation` before each use and releases the stream with its destroy
/// operation. Returns false, with ENOMEM in errno, without memory.
[[nodiscard]] bool __brix_xdrrec_create(XDR* xdrs, uint32_t send_size, uint32_t receive_size,
                                        void* transport, xdrrec_read read, xdrrec_write write);

/// Ends the record being written. With `send_now` it and all that is buffered leave
/// at once. Otherwise a small record may stay in the buffer and leave with the next
/// send; what is never followed by one is never sent. Returns false when sending
/// failed, now or earlier in this record.
bool __brix_xdrrec_endofrecord(XDR* xdrs, bool send_now);

/// Drops the rest of the record being read and moves to the next one. Returns false
/// when input cannot be read; then it may be tried again. Also false, and the stream
/// is broken, when the input is no longer in whole units there.
bool __brix_xdrrec_skiprecord(XDR* xdrs);

/// Drops the rest of the record being read. Returns whether no further input is
/// buffered behind it, true also when the rest cannot be read.
bool __brix_xdrrec_eof(XDR* xdrs);

/// Whether the stream is broken: nothing more is read or sent.
[[nodiscard]] bool xdrrec_is_broken(XDR* xdrs);

/// Whether the next byte of input is the first of a fragment's header, not yet read.
[[nodiscard]] bool xdrrec_at_header(XDR* xdrs);

/// Whether the stream is before a record of which no whole header was read yet:
/// where __brix_xdrrec_skiprecord moved it. Skipping would drop that record. Never on
/// a broken stream.
[[nodiscard]] bool xdrrec_at_record(XDR* xdrs);
