// The receiving side of a record stream on arbitrary bytes, which come in pieces: it
// reads what the rules of record marking read from them, stalls lose nothing, and input
// that it has to refuse ends it.
//
// The first byte of the input says how large the pieces are; 0: whole, without
// stalls. The second says how many bytes are read at once then. The rest is the stream.
#undef NDEBUG
#include <sanitizer/common_interface_defs.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "rpc/xdr/x_rec.h"

namespace {

struct Script {
  std::string bytes;
  size_t taken = 0;
  size_t piece = SIZE_MAX;
  bool stalls = false;  // every other read finds nothing
  bool stalled = false;
};

int64_t read_script(void* transport, void* buffer, uint32_t length, void* second,
                    uint32_t second_length) {
  auto* script = static_cast<Script*>(transport);
  script->stalled = script->stalls && !script->stalled;
  if (script->stalled) return -1;
  const std::string bytes =
      script->bytes.substr(script->taken, std::min(script->piece, size_t{length} + second_length));
  const size_t direct = bytes.copy(static_cast<char*>(buffer), length);
  if (bytes.size() > direct) bytes.copy(static_cast<char*>(second), second_length, direct);
  script->taken += bytes.size();
  return static_cast<int64_t>(bytes.size());
}

int64_t write_nothing(void*, const void*, uint32_t, const void*, uint32_t) { return 0; }

// The records in `bytes` as the rules read them; of the last one what is there. Ends
// where a fragment is refused or the units are broken.
std::vector<std::string> records_of(const std::string& bytes) {
  std::vector<std::string> records = {""};
  uint32_t empty = 0;
  for (size_t at = 0; at + 4 <= bytes.size();) {
    uint32_t header = 0;
    for (size_t i = 0; i < 4; ++i) header = header << 8 | static_cast<uint8_t>(bytes[at + i]);
    at += 4;
    size_t length = header & 0x7FFFFFFF;
    empty = length == 0 ? empty + 1 : 0;
    if (length > kXdrRecMaxFragment || empty > kXdrRecMaxEmptyFragments) break;
    records.back() += bytes.substr(at, length);
    if (length > bytes.size() - at) break;
    at += length;
    if ((header & 0x80000000) == 0) continue;
    if (at % 4 != 0) break;
    records.emplace_back();
  }
  return records;
}

// Repeats `step` until it succeeds, for as long as input still comes.
bool persist(Script* script, auto step) {
  for (int idle = 0; idle < 3;) {
    size_t before = script->taken;
    if (step()) return true;
    idle = script->taken == before ? idle + 1 : 0;
  }
  return false;
}

// Reads the record of `length` bytes in portions, and in place where that goes.
std::string read_record(XDR* xdrs, Script* script, size_t length, size_t portion) {
  std::string record;
  while (record.size() < length) {
    std::string bytes(std::min(portion, length - record.size()), '?');
    auto read = [&] {
      return xdrs->ops->get_bytes(xdrs, bytes.data(), static_cast<uint32_t>(bytes.size()));
    };
    const uint8_t* in_place = xdrs->ops->get_inline(xdrs, 4);
    if (in_place != nullptr) bytes.assign(in_place, in_place + 4);
    assert(in_place != nullptr || persist(script, read));
    record += bytes;
  }
  return record;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Each refused fragment is told on standard error, where findings still shall go.
  __sanitizer_set_report_fd(reinterpret_cast<void*>(intptr_t{dup(STDERR_FILENO)}));
  return freopen("/dev/null", "w", stderr) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  Script script;
  script.bytes.assign(reinterpret_cast<const char*>(data) + 2, size - 2);
  script.stalls = data[0] != 0;
  if (script.stalls) script.piece = data[0];
  const size_t portion = script.stalls ? 1 : 1 + data[1] * size_t{16};
  XDR xdrs{};
  assert(__brix_xdrrec_create(&xdrs, 100, 100, &script, read_script, write_nothing));
  xdrs.operation = xdr_op::kDecode;
  for (const std::string& record : records_of(script.bytes)) {
    assert(persist(&script, [&xdrs] { return __brix_xdrrec_skiprecord(&xdrs); }));
    assert(read_record(&xdrs, &script, record.size(), portion) == record);
  }
  assert(!persist(&script, [&xdrs] { return __brix_xdrrec_skiprecord(&xdrs); }));
  xdrs.ops->destroy(&xdrs);
  return 0;
}
