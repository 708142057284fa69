// The receiving side of a record stream on arbitrary bytes: whether they come whole or
// in pieces, with a stall between any two, it reads the same records and refuses the same.
//
// The first byte of the input says how large the pieces are, the second how many bytes
// are read at once when they come whole. The rest is the stream.
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
  size_t piece;
  bool stalls;  // every other read finds nothing
  size_t taken = 0;
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

// Repeats `step` until it succeeds, for as long as input still comes.
bool persist(const Script& script, auto step) {
  for (int idle = 0; idle < 3;) {
    const size_t before = script.taken;
    if (step()) return true;
    idle = script.taken == before ? idle + 1 : 0;
  }
  return false;
}

// The records of the stream, read in portions until one fails; of the last one what came.
std::vector<std::string> records_of(Script script, uint32_t portion) {
  std::vector<std::string> records;
  XDR xdrs{};
  assert(__brix_xdrrec_create(&xdrs, 100, 100, &script, read_script, write_nothing));
  xdrs.operation = xdr_op::kDecode;
  while (persist(script, [&] { return __brix_xdrrec_skiprecord(&xdrs); })) {
    std::string& record = records.emplace_back();
    std::string bytes(portion, '?');
    for (;;) {
      auto read = [&] { return xdrs.ops->get_bytes(&xdrs, bytes.data(), portion); };
      const uint8_t* in_place = xdrs.ops->get_inline(&xdrs, static_cast<int32_t>(portion));
      if (in_place != nullptr) {
        record.append(in_place, in_place + portion);
      } else if (persist(script, read)) {
        record += bytes;
      } else {
        break;
      }
    }
  }
  xdrs.ops->destroy(&xdrs);
  return records;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Each refused fragment is told on standard error, where findings still shall go.
  __sanitizer_set_report_fd(reinterpret_cast<void*>(intptr_t{dup(STDERR_FILENO)}));
  return freopen("/dev/null", "w", stderr) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  const auto whole = records_of({bytes, SIZE_MAX, false}, 1);
  assert(records_of({bytes, std::max<size_t>(data[0], 1), true}, 1) == whole);
  // In portions all but the rest of each record.
  const uint32_t portion = 1 + data[1] * 16U;
  const auto portions = records_of({bytes, SIZE_MAX, false}, portion);
  for (size_t i = 0; i < portions.size(); ++i) {
    assert(portions[i] == whole.at(i).substr(0, whole[i].size() / portion * portion));
  }
  return 0;
}
