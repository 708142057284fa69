#include "rpc/xdr/x_rec.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "liblocal/messages/debug.h"
#include "liblocal/messages/print.h"
#include "rpc/xdr/buffer_size.h"
#include "rpc/xdr/io_switches.h"
#include "rpc/xdr/xdr_units.h"

namespace {

constexpr uint32_t kHeader = 4;                  // bytes of a fragment's header
constexpr uint32_t kLastFragment = 0x80000000U;  // its high bit

// Offsets are into the buffers. The sending buffer holds, in this order, records
// whose end was delayed, the header slot of the current fragment, and its data.
// The receiving buffer keeps each byte at its place in the stream modulo the unit,
// so that an aligned place there means an aligned stream.
struct RecordStream {
  void* transport;
  xdrrec_read read;
  xdrrec_write write;
  bool broken;

  uint8_t* out;
  uint32_t out_size;
  uint32_t out_header;  // where the current fragment's header goes
  uint32_t out_next;    // where the next byte goes
  uint32_t out_high;    // end of what was put, when the position was set back
  bool out_begun;       // a fragment of this record was sent already
  bool out_failed;      // sending this record failed

  uint8_t* in;
  uint32_t in_size;
  uint32_t in_next;      // the next byte
  uint32_t in_end;       // end of what was read
  uint32_t in_fragment;  // where the buffered part of the current fragment starts
  uint32_t in_left;      // bytes of the current fragment that were not consumed
  bool in_last;          // the current fragment is its record's last one
  bool in_begun;         // a header of the current record was read
  uint8_t in_header[kHeader];
  uint32_t in_header_length;  // how much of the next header was read
};

RecordStream* stream_of(XDR* xdrs) { return static_cast<RecordStream*>(xdrs->private_word); }

// Starts a fragment whose header is at `offset`.
void open_fragment(RecordStream* stream, uint32_t offset) {
  stream->out_header = offset;
  stream->out_next = offset + kHeader;
  stream->out_high = stream->out_next;
}

uint32_t fragment_length(const RecordStream* stream) {
  return stream->out_next - stream->out_header - kHeader;
}

void write_header(RecordStream* stream, uint32_t length, bool last) {
  xdr_store(stream->out + stream->out_header, length | (last ? kLastFragment : 0));
}

// Sends the first `buffered` bytes of the buffer and the `length` bytes at `bytes`.
// The record is lost when that fails, and the stream too if a part of it has left.
bool send(RecordStream* stream, uint32_t buffered, const void* bytes, uint32_t length) {
  if (stream->out_failed || stream->broken) return false;
  int64_t written = stream->write(stream->transport, stream->out, buffered, bytes, length);
  if (written == int64_t{buffered} + length) {
    open_fragment(stream, 0);
    return true;
  }
  stream->broken = written > 0 || stream->out_begun;
  stream->out_failed = true;
  open_fragment(stream, stream->out_header);
  return false;
}

// Makes room: the fragment so far leaves. When it is empty, the records before it
// leave; without these there would be room.
bool send_fragment(RecordStream* stream) {
  uint32_t length = fragment_length(stream);
  if (length == 0) return send(stream, stream->out_header, nullptr, 0);
  write_header(stream, length, false);
  if (!send(stream, stream->out_next, nullptr, 0)) return false;
  stream->out_begun = true;
  return true;
}

bool send_record(RecordStream* stream) {
  write_header(stream, fragment_length(stream), true);
  return send(stream, stream->out_next, nullptr, 0);
}

// Whether the end of the record may wait in the buffer: all of a small record, or
// the empty last fragment of one whose data was sent.
bool may_delay(const RecordStream* stream) {
  constexpr uint32_t kFreeShare = 16;  // this part of the buffer has to be free
  const uint32_t room = stream->out_size - stream->out_next;
  if (!stream->out_begun) return room > stream->out_size / kFreeShare;
  return fragment_length(stream) == 0 && rpc_get_io_switches().delayed_ends;
}

// Sends what is buffered and `length` bytes at `bytes` as one fragment, of a length
// that a receiving side of this runtime accepts.
bool send_large(RecordStream* stream, const uint8_t* bytes, uint32_t length) {
  write_header(stream, fragment_length(stream) + length, false);
  if (!send(stream, stream->out_next, bytes, length)) return false;
  stream->out_begun = true;
  return true;
}

// Where the next `length` bytes, not more than the buffer holds, go in one piece;
// null when sending those before failed.
uint8_t* room_for(RecordStream* stream, uint32_t length) {
  if (stream->out_failed) return nullptr;
  if (stream->out_size - stream->out_next < length && !send_fragment(stream)) return nullptr;
  uint8_t* at = stream->out + stream->out_next;
  stream->out_next += length;
  stream->out_high = std::max(stream->out_high, stream->out_next);
  return at;
}

template <typename Wire, typename T>
bool put(XDR* xdrs, const T* value) {
  uint8_t* at = room_for(stream_of(xdrs), sizeof(Wire));
  if (at == nullptr) return false;
  xdr_store(at, static_cast<Wire>(*value));
  return true;
}

bool rec_put_bytes(XDR* xdrs, const void* bytes, uint32_t length) {
  RecordStream* stream = stream_of(xdrs);
  const auto* from = static_cast<const uint8_t*>(bytes);
  if (from == nullptr) return length == 0;
  while (length >= kXdrRecLargePut) {
    uint32_t most = kXdrRecMaxFragment - std::min(fragment_length(stream), kXdrRecMaxFragment);
    uint32_t piece = std::min(length, most);
    piece -= piece % kXdrUnit;  // nothing, of a full fragment
    if (!send_large(stream, from, piece)) return false;
    from += piece;
    length -= piece;
  }
  while (length > 0) {
    uint32_t room = stream->out_size - stream->out_next;
    uint32_t piece = std::min(length, room > 0 ? room : stream->out_size - kHeader);
    uint8_t* at = room_for(stream, piece);
    if (at == nullptr) return false;
    memcpy(at, from, piece);
    from += piece;
    length -= piece;
  }
  return true;
}

bool break_stream(RecordStream* stream) {
  stream->broken = true;
  return false;
}

// Where the buffer is filled from, when `direct` bytes of the stream go elsewhere
// before.
uint32_t fill_offset(const RecordStream* stream, uint32_t direct) {
  return (stream->in_end + direct) % kXdrUnit;
}

// Fills the empty buffer with what the transport has.
bool fill(RecordStream* stream) {
  if (stream->broken) return false;
  uint32_t start = fill_offset(stream, 0);
  int64_t got =
      stream->read(stream->transport, stream->in + start, stream->in_size - start, nullptr, 0);
  if (got <= 0) return false;
  stream->in_next = stream->in_fragment = start;
  stream->in_end = start + static_cast<uint32_t>(got);
  return true;
}

// Reads up to `length` bytes of a fragment past the empty buffer into `to`; what comes
// behind them fills the buffer. Returns how many came, 0 on failure.
uint32_t read_past_buffer(RecordStream* stream, uint8_t* to, uint32_t length) {
  if (stream->broken) return 0;
  uint32_t start = fill_offset(stream, length);
  int64_t got =
      stream->read(stream->transport, to, length, stream->in + start, stream->in_size - start);
  if (got <= 0) return 0;
  uint32_t direct = static_cast<uint32_t>(std::min<int64_t>(got, length));
  stream->in_next = stream->in_fragment = fill_offset(stream, direct);
  stream->in_end = stream->in_next + static_cast<uint32_t>(got - direct);
  return direct;
}

bool accept_fragment(RecordStream* stream, uint32_t header) {
  uint32_t length = header & ~kLastFragment;
  if (length > kXdrRecMaxFragment) {
    printerr("pid %u frag size %lu, closing connection\n", static_cast<unsigned>(getpid()),
             static_cast<unsigned long>(length));
    return break_stream(stream);
  }
  stream->in_begun = true;
  stream->in_left = length;
  stream->in_last = (header & kLastFragment) != 0;
  stream->in_fragment = stream->in_next;
  return true;
}

// Reads the next header. What has come of it is kept when the rest does not.
bool next_fragment(RecordStream* stream) {
  if (stream->broken) return false;
  while (stream->in_header_length < kHeader) {
    if (stream->in_next == stream->in_end && !fill(stream)) return false;
    uint32_t piece = std::min(kHeader - stream->in_header_length, stream->in_end - stream->in_next);
    memcpy(stream->in_header + stream->in_header_length, stream->in + stream->in_next, piece);
    stream->in_next += piece;
    stream->in_header_length += piece;
  }
  stream->in_header_length = 0;
  return accept_fragment(stream, xdr_load<uint32_t>(stream->in_header));
}

// Enters the fragment with the next byte of the record; false at its end and on failure.
bool enter_data(RecordStream* stream) {
  while (stream->in_left == 0) {
    if (stream->in_last || !next_fragment(stream)) return false;
  }
  return true;
}

// Consumes up to `length` bytes of the fragment into `to`. Returns how many, 0 on
// failure.
uint32_t read_some(RecordStream* stream, uint8_t* to, uint32_t length) {
  uint32_t piece = std::min(length, stream->in_left);
  if (stream->in_next == stream->in_end) {
    if (piece >= stream->in_size) {
      piece = read_past_buffer(stream, to, piece);
      stream->in_left -= piece;
      return piece;
    }
    if (!fill(stream)) return 0;
  }
  piece = std::min(piece, stream->in_end - stream->in_next);
  memcpy(to, stream->in + stream->in_next, piece);
  stream->in_next += piece;
  stream->in_left -= piece;
  return piece;
}

bool rec_get_bytes(XDR* xdrs, void* bytes, uint32_t length) {
  RecordStream* stream = stream_of(xdrs);
  auto* to = static_cast<uint8_t*>(bytes);
  while (length > 0) {
    if (!enter_data(stream)) return false;
    uint32_t got = read_some(stream, to, length);
    if (got == 0) return false;
    to += got;
    length -= got;
  }
  return true;
}

template <typename Wire, typename T>
bool get(XDR* xdrs, T* value) {
  uint8_t bytes[sizeof(Wire)];
  if (!rec_get_bytes(xdrs, bytes, sizeof bytes)) return false;
  *value = static_cast<T>(xdr_load<Wire>(bytes));
  return true;
}

// Bytes of the current fragment that are in the buffer.
uint32_t buffered(const RecordStream* stream) {
  return std::min(stream->in_left, stream->in_end - stream->in_next);
}

// Drops the rest of the record; false when it cannot be read.
bool drop_record(RecordStream* stream) {
  while (enter_data(stream)) {
    if (stream->in_next == stream->in_end && !fill(stream)) return false;
    uint32_t piece = buffered(stream);
    stream->in_next += piece;
    stream->in_left -= piece;
  }
  return stream->in_last;
}

uint32_t rec_get_position(XDR* xdrs) {
  RecordStream* stream = stream_of(xdrs);
  if (xdrs->operation == xdr_op::kEncode) return fragment_length(stream);
  return stream->in_next - stream->in_fragment;
}

bool rec_set_position(XDR* xdrs, uint32_t wanted) {
  RecordStream* stream = stream_of(xdrs);
  if (xdrs->operation == xdr_op::kEncode) {
    uint32_t start = stream->out_header + kHeader;
    if (wanted > stream->out_high - start) return false;
    stream->out_next = start + wanted;
    return true;
  }
  uint32_t position = rec_get_position(xdrs);
  if (wanted > position + buffered(stream)) return false;
  stream->in_next = stream->in_fragment + wanted;
  stream->in_left = stream->in_left + position - wanted;
  return true;
}

uint8_t* rec_get_inline(XDR* xdrs, int32_t length) {
  RecordStream* stream = stream_of(xdrs);
  const auto bytes = static_cast<uint32_t>(length);  // a negative one is more than any buffer has
  if (xdrs->operation == xdr_op::kEncode) {
    bool fits = bytes <= stream->out_size - stream->out_next;
    if (!fits || stream->out_next % kXdrUnit != 0) return nullptr;
    return room_for(stream, bytes);
  }
  if (bytes > buffered(stream) || stream->in_next % kXdrUnit != 0) return nullptr;
  uint8_t* at = stream->in + stream->in_next;
  stream->in_next += bytes;
  stream->in_left -= bytes;
  return at;
}

void rec_destroy(XDR* xdrs) {
  free(xdrs->private_word);
  xdrs->private_word = nullptr;
}

bool rec_control(XDR* /*xdrs*/, uint32_t /*request*/, void* /*information*/) { return false; }

int32_t rec_get_remaining(XDR* /*xdrs*/) { return kXdrRemainingUnknown; }

constexpr xdr_ops kRecordOps = {
    get<uint32_t, long>,
    put<uint32_t, long>,
    rec_get_bytes,
    rec_put_bytes,
    rec_get_position,
    rec_set_position,
    rec_get_inline,
    rec_destroy,
    rec_control,
    get<uint32_t, int32_t>,
    put<uint32_t, int32_t>,
    get<uint64_t, int64_t>,
    put<uint64_t, int64_t>,
    rec_get_remaining,
};

}  // namespace

bool __brix_xdrrec_create(XDR* xdrs, uint32_t send_size, uint32_t receive_size, void* transport,
                          xdrrec_read read, xdrrec_write write) {
  // What a buffer holds has to be an acceptable fragment.
  send_size = std::min(rpc_buffer_size(send_size), kXdrRecMaxFragment + kHeader);
  receive_size = rpc_buffer_size(receive_size);
  const uint64_t size = sizeof(RecordStream) + uint64_t{send_size} + receive_size;
  void* memory = size <= PTRDIFF_MAX ? calloc(1, static_cast<size_t>(size)) : nullptr;
  if (memory == nullptr) {
    errno = ENOMEM;
    return false;
  }
  auto* stream = static_cast<RecordStream*>(memory);
  stream->transport = transport;
  stream->read = read;
  stream->write = write;
  stream->out = reinterpret_cast<uint8_t*>(stream + 1);
  stream->out_size = send_size;
  stream->in = stream->out + send_size;
  stream->in_size = receive_size;
  stream->in_last = stream->in_begun = true;
  open_fragment(stream, 0);
  *xdrs = {xdr_op::kEncode, &kRecordOps, nullptr, stream, nullptr, 0};
  return true;
}

bool __brix_xdrrec_endofrecord(XDR* xdrs, bool send_now) {
  RecordStream* stream = stream_of(xdrs);
  bool done = true;
  if (stream->out_failed || send_now || !may_delay(stream)) {
    done = send_record(stream);
  } else {
    write_header(stream, fragment_length(stream), true);
    open_fragment(stream, stream->out_next);
  }
  stream->out_begun = false;
  stream->out_failed = false;
  return done;
}

bool __brix_xdrrec_skiprecord(XDR* xdrs) {
  RecordStream* stream = stream_of(xdrs);
  if (stream->broken || !drop_record(stream)) return false;
  if (stream->in_next % kXdrUnit != 0) {
    dfprintf(1, "xdrrec_skiprecord unaligned input pointer\n");
    return break_stream(stream);
  }
  stream->in_last = false;
  stream->in_begun = false;
  return true;
}

bool __brix_xdrrec_eof(XDR* xdrs) {
  RecordStream* stream = stream_of(xdrs);
  return stream->broken || !drop_record(stream) || stream->in_next == stream->in_end;
}

bool xdrrec_is_broken(XDR* xdrs) { return stream_of(xdrs)->broken; }

bool xdrrec_at_header(XDR* xdrs) {
  RecordStream* stream = stream_of(xdrs);
  return stream->in_left == 0 && stream->in_header_length == 0 && stream->in_next == stream->in_end;
}

bool xdrrec_at_record(XDR* xdrs) {
  RecordStream* stream = stream_of(xdrs);
  return !stream->in_begun && !stream->broken;
}
