// The receiving side of a record stream on arbitrary bytes, which come in pieces: it
// reads what the rules of record marking read from them, stalls lose nothing, input that
// it has to refuse ends it, and no declared length takes memory that has not arrived.
//
// The first byte of the input says how large the pieces are; 0: whole, without
// stalls. The second says how many bytes are read at once then; 0: as counted bytes, as
// their length says. The rest is the stream.
#undef NDEBUG
#include <sanitizer/allocator_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "rpc/xdr/x_rec.h"

namespace {

size_t largest_allocation = SIZE_MAX;

void see_allocation(const volatile void*, size_t size) { assert(size <= largest_allocation); }

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
  size_t count = std::min(script->piece, script->bytes.size() - script->taken);
  count = std::min(count, size_t{length} + second_length);
  size_t direct = std::min<size_t>(count, length);
  script->bytes.copy(static_cast<char*>(buffer), direct, script->taken);
  if (count > direct) {
    script->bytes.copy(static_cast<char*>(second), count - direct, script->taken + direct);
  }
  script->taken += count;
  return static_cast<int64_t>(count);
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

// Reads byte by byte, and in place where that goes.
std::string read_record(XDR* xdrs, Script* script) {
  std::string record;
  auto step = [&] {
    const uint8_t* in_place = xdrs->ops->get_inline(xdrs, 4);
    if (in_place != nullptr) record.append(reinterpret_cast<const char*>(in_place), 4);
    char byte = 0;
    if (!xdrs->ops->get_bytes(xdrs, &byte, 1)) return in_place != nullptr;
    record += byte;
    return true;
  };
  while (persist(script, step)) {
  }
  return record;
}

// Reads what is known to be there, in large portions.
std::string read_known(XDR* xdrs, size_t length, size_t portion) {
  std::string record(length, '?');
  for (size_t done = 0; done < length;) {
    auto count = static_cast<uint32_t>(std::min(portion, length - done));
    assert(xdrs->ops->get_bytes(xdrs, record.data() + done, count));
    done += count;
  }
  return record;
}

// Reads counted bytes, which are those of the record if there are as many.
void read_counted(XDR* xdrs, const std::string& record) {
  uint8_t* bytes = nullptr;
  uint32_t size = 0;
  largest_allocation = 70000 + 2 * record.size();  // a first portion, and twice what came
  bool read = __brix_xdr_bytes(xdrs, &bytes, &size, UINT32_MAX);
  largest_allocation = SIZE_MAX;
  assert(!read || size == 0 || memcmp(bytes, record.data() + 4, size) == 0);
  free(bytes);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  __sanitizer_install_malloc_and_free_hooks(see_allocation, [](const volatile void*) {});
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
  const size_t portion = data[1] * size_t{16};
  XDR xdrs{};
  assert(__brix_xdrrec_create(&xdrs, 100, 100, &script, read_script, write_nothing));
  xdrs.operation = xdr_op::kDecode;
  const std::vector<std::string> records = records_of(script.bytes);
  for (size_t i = 0; i < records.size(); ++i) {
    assert(persist(&script, [&xdrs] { return __brix_xdrrec_skiprecord(&xdrs); }));
    if (script.stalls) {
      assert(read_record(&xdrs, &script) == records[i]);
    } else if (portion > 0) {
      assert(read_known(&xdrs, records[i].size(), portion) == records[i]);
    } else {
      read_counted(&xdrs, records[i]);
    }
  }
  assert(!persist(&script, [&xdrs] { return __brix_xdrrec_skiprecord(&xdrs); }));
  xdrs.ops->destroy(&xdrs);
  return 0;
}
