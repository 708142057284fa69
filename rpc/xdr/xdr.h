// XDR (RFC 4506): how objects become bytes and bytes objects; the lowest layer of the RPC
// runtime. This header has the streams and the filters of the basic types: big-endian units
// of 4 bytes, opaque data padded with zero bytes to a multiple of 4.
//
// A stream is a handle with an operation (encode, decode or free) and a table of
// stream operations. A filter is one function per data type that serves all three:
// it writes the object to the stream, reads the object from it, or releases what reading
// allocated. xdr_compound.h has the filters of compound types; xdr_object.h releases,
// measures and copies whole objects; x_mem.h makes streams over memory, x_count.h streams
// that only count, x_rec.h streams of records over a connection.
//
// Filters return true, or false for a failure; they print nothing. Unless its comment says
// otherwise, a filter does nothing and succeeds when the operation is free, and decoding
// writes the object only after the stream operation succeeded. A decode that fails half-way
// may leave allocated memory in the object: release it with __brix_xdr_free and the same
// filter.
//
// Memory grows with what a peer sends, not with what it declares. Counted bytes that the
// stream cannot hold fail before anything is allocated. Where the stream cannot tell what it
// holds, and for arrays, decoding allocates at most 65536 bytes, or one element, and doubles
// that as data arrives. The caller's maximum bounds elements that take nothing on the wire.
//
// Thread safety: a stream is used by one thread at a time; nothing else is shared.
#pragma once

#include <cstdint>
#include <ctime>

struct XDR;

/// What a filter does with its object.
enum class xdr_op : uint32_t { kEncode = 0, kDecode = 1, kFree = 2 };

constexpr uint32_t kXdrUnit = 4;                     //!< bytes of one unit on the wire
constexpr int32_t kXdrRemainingUnknown = INT32_MAX;  //!< of a stream that cannot tell
constexpr uint32_t kXdrMaxBytes = 0xFFFFFFFB;        //!< longest counted bytes or string
constexpr uint32_t kXdrControlBytesAvailable = 6;    //!< the one request that streams know
constexpr uint32_t kXdrDigestSize = 20;              //!< bytes of a digest or identifier

/// What a kind of stream provides, in slot order. On a stream over memory, an operation that
/// fails for lack of room or data changes nothing.
struct xdr_ops {
  /// Reads a signed or unsigned 32-bit value, as the kind of stream extends it.
  bool (*get_long)(XDR* xdrs, long* value);
  /// Writes the low 32 bits of `*value`.
  bool (*put_long)(XDR* xdrs, const long* value);
  /// Copies `length` bytes out of the stream, without padding.
  bool (*get_bytes)(XDR* xdrs, void* bytes, uint32_t length);
  /// Copies `length` bytes into the stream, without padding. Null bytes fail, but for length
  /// 0 and where they are only counted.
  bool (*put_bytes)(XDR* xdrs, const void* bytes, uint32_t length);
  /// Bytes from the start of the stream.
  uint32_t (*get_position)(XDR* xdrs);
  /// Moves to `position`.
  bool (*set_position)(XDR* xdrs, uint32_t position);
  /// The next `length` bytes, consumed, as memory to read from or write to; it has no
  /// alignment. Null when the stream does not have them in one piece, and for a
  /// negative length; the stream is then unchanged.
  uint8_t* (*get_inline)(XDR* xdrs, int32_t length);
  /// Releases what the stream holds, but not the handle.
  void (*destroy)(XDR* xdrs);
  /// Whether the stream knows `request`, and then does it.
  bool (*control)(XDR* xdrs, uint32_t request, void* information);
  /// Reads one unit.
  bool (*get_int32)(XDR* xdrs, int32_t* value);
  /// Writes one unit.
  bool (*put_int32)(XDR* xdrs, const int32_t* value);
  /// Reads two units, the high half first.
  bool (*get_int64)(XDR* xdrs, int64_t* value);
  /// Writes two units, the high half first.
  bool (*put_int64)(XDR* xdrs, const int64_t* value);
  /// Bytes that can still be read or written. kXdrRemainingUnknown from a stream
  /// that cannot tell (a connection's): its decoding allocates as data arrives.
  int32_t (*get_remaining)(XDR* xdrs);
};

/// One stream; owned by whoever embeds it. The fields after `ops` belong to the kind
/// of stream, but for `user`.
struct XDR {
  xdr_op operation;    //!< what filters do
  const xdr_ops* ops;  //!< of the kind of stream
  void* user;          //!< for the user of the stream; the kinds here leave it alone
  void* private_word;  //!< memory: the current position; counting: the caller's counter
  uint8_t* base;       //!< memory: start of the buffer
  int32_t remaining;   //!< memory: bytes left in the buffer
};

/// The type through which every filter is called that is passed as a value
/// (to arrays, pointers, client calls): the stream and the object. `object` has the
/// type that the filter is for.
using xdrproc_t = bool (*)(XDR* xdrs, void* object);

/// The type of an arm of a union, which gets the discriminant as well.
using xdrarm_t = bool (*)(XDR* xdrs, void* object, int32_t discriminant);

namespace xdr_detail {
template <typename Filter>
struct ObjectOf;
template <typename T>
struct ObjectOf<bool (*)(XDR*, T*)> {
  using Type = T;
};
}  // namespace xdr_detail

/// `filter`, a function bool (XDR*, T*), as an xdrproc_t: xdr_filter<__brix_xdr_int>.
/// Function pointers are called through exactly their own type, so a filter is
/// wrapped, not cast.
template <auto filter>
bool xdr_filter(XDR* xdrs, void* object) {
  using T = typename xdr_detail::ObjectOf<decltype(filter)>::Type;
  return filter(xdrs, static_cast<T*>(object));
}

/// `filter`, a function bool (XDR*, T*), as an arm that ignores the discriminant.
template <auto filter>
bool xdr_arm(XDR* xdrs, void* object, int32_t /*discriminant*/) {
  return xdr_filter<filter>(xdrs, object);
}

/// A stream whose operation is free and whose other fields are zero: what releases
/// decoded data. Never changed.
extern XDR __xdr;

/// Bytes that follow `length` bytes of opaque data to fill its last unit, 0 to 3.
[[nodiscard]] constexpr uint32_t xdr_padding(uint32_t length) {
  return (kXdrUnit - length % kXdrUnit) % kXdrUnit;
}

/// Nothing on the wire; always true. (RFC 4506, section 4.16)
bool __brix_xdr_void(XDR* xdrs, void* object);

/// A 32-bit integer, one unit (RFC 4506, sections 4.1 to 4.3). Succeeds for every operation but
/// encode and decode, as the next four do.
bool xdr_int32_t(XDR* xdrs, int32_t* value);
/// An unsigned 32-bit integer, one unit.
bool xdr_uint32_t(XDR* xdrs, uint32_t* value);
/// An enumeration, one unit.
bool __brix_xdr_enum(XDR* xdrs, int32_t* value);
/// An int, one unit.
bool __brix_xdr_int(XDR* xdrs, int32_t* value);
/// An unsigned int, one unit.
bool __brix_xdr_u_int(XDR* xdrs, uint32_t* value);

/// A short, one unit. Decoding keeps the low bits and checks no range, as in the next two.
bool __brix_xdr_short(XDR* xdrs, int16_t* value);
/// An unsigned short, one unit.
bool __brix_xdr_u_short(XDR* xdrs, uint16_t* value);
/// A char, one unit with its sign.
bool __brix_xdr_char(XDR* xdrs, char* value);

/// A boolean, one unit (RFC 4506, section 4.4): 1 for any value but 0, both ways.
bool __brix_xdr_bool(XDR* xdrs, int32_t* value);

/// The low 32 bits of a long, one unit. Decoding gives what the stream's get_long
/// gives: a memory stream zero-extends (FFFFFFFF is 4294967295).
bool __brix_xdr_long(XDR* xdrs, long* value);

/// The low 32 bits of an unsigned long, one unit; decoding zero-extends.
bool __brix_xdr_u_long(XDR* xdrs, unsigned long* value);

/// The low 32 bits of a long, one unit; decoding extends the sign.
bool xdr_shorten(XDR* xdrs, long* value);
/// The low 32 bits of an unsigned long, one unit; decoding extends by zeros.
bool xdr_u_shorten(XDR* xdrs, unsigned long* value);

/// The low 32 bits of a time in seconds, one unit; decoding extends the sign.
bool __brix_xdr_time_t(XDR* xdrs, time_t* value);

/// A 64-bit integer, two units, high half first (RFC 4506, section 4.5).
bool xdr_int64_t(XDR* xdrs, int64_t* value);
/// An unsigned 64-bit integer, two units, high half first.
bool xdr_uint64_t(XDR* xdrs, uint64_t* value);

/// An IEEE 754 bit pattern, one unit (RFC 4506, section 4.6).
bool __brix_xdr_float(XDR* xdrs, float* value);
/// An IEEE 754 bit pattern, two units (RFC 4506, section 4.7).
bool __brix_xdr_double(XDR* xdrs, double* value);

/// `count` bytes at `bytes` and their padding (RFC 4506, section 4.9). Fails for an
/// operation that is none of the three.
bool __brix_xdr_opaque(XDR* xdrs, void* bytes, uint32_t count);

/// A digest: kXdrDigestSize opaque bytes at `bytes`.
bool xdr_sha_digest(XDR* xdrs, uint8_t* bytes);
/// An identifier: kXdrDigestSize opaque bytes at `bytes`.
bool xdr_vxui_t(XDR* xdrs, uint8_t* bytes);

/// Counted bytes (RFC 4506, section 4.10): length, bytes, padding. `maximum` is
/// clamped to kXdrMaxBytes; longer ones fail in both directions.
///
/// Decoding stores the length in `*size`. A null `*bytes` gets a buffer of the bytes
/// and their padding, to be freed by the free operation (or free); none for length
/// 0. Bytes supplied by the caller must hold `maximum` bytes. Free releases the
/// buffer and sets `*bytes` to null.
bool __brix_xdr_bytes(XDR* xdrs, uint8_t** bytes, uint32_t* size, uint32_t maximum);

/// A NUL-terminated string (RFC 4506, section 4.11), sent as counted bytes without
/// its terminator; null is sent as the empty one. `maximum` is clamped to
/// kXdrMaxBytes; longer ones fail in both directions.
///
/// Decoding terminates the string. A null `*text` gets a buffer of its own, to be
/// freed by the free operation (or free); one supplied by the caller must hold
/// `maximum` + 1 bytes. Free releases the buffer and sets `*text` to null.
bool __brix_xdr_string(XDR* xdrs, char** text, uint32_t maximum);

/// __brix_xdr_string of any length.
bool __brix_xdr_wrapstring(XDR* xdrs, char** text);
