// The receiving side of a record stream on arbitrary bytes: whether they come whole or
// in pieces, with a stall between any two, it reads the same records and refuses the same.
// The first byte of the input says how large the pieces are, the second how many bytes are
// read at once when they come whole; the rest is the stream.
#undef NDEBUG
#include <sanitizer/common_interface_defs.h>
#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <vector>

#include "rpc/xdr/x_rec.h"
#include "tests/xdr_streams.h"

// Repeats `step` until it succeeds, for as long as input still comes.
static bool persist(const Pipe& pipe, auto step) {
  for (int idle = 0; idle < 3;) {
    const size_t before = pipe.taken;
    if (step()) return true;
    idle = pipe.taken == before ? idle + 1 : 0;
  }
  return false;
}

// The records of the stream, read in portions until one fails; of the last one what came.
static std::vector<std::string> records_of(Pipe pipe, uint32_t portion) {
  std::vector<std::string> records;
  XDR xdrs{};
  assert(__brix_xdrrec_create(&xdrs, 100, 100, &pipe, Pipe::read, Pipe::write));
  xdrs.operation = xdr_op::kDecode;
  while (persist(pipe, [&] { return __brix_xdrrec_skiprecord(&xdrs); })) {
    std::string& record = records.emplace_back();
    std::string bytes(portion, '?');
    auto read = [&] {
      const uint8_t* in_place = xdrs.ops->get_inline(&xdrs, static_cast<int32_t>(portion));
      if (in_place != nullptr) std::copy_n(in_place, portion, bytes.begin());
      return in_place != nullptr || xdrs.ops->get_bytes(&xdrs, bytes.data(), portion);
    };
    while (persist(pipe, read)) record += bytes;
  }
  xdrs.ops->destroy(&xdrs);
  return records;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Each refused fragment is told on standard error, where findings still shall go.
  __sanitizer_set_report_fd(reinterpret_cast<void*>(intptr_t{dup(STDERR_FILENO)}));
  return freopen("/dev/null", "w", stderr) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  const auto whole = records_of({bytes}, 1);
  assert(records_of({bytes, std::max<uint64_t>(data[0], 1), true}, 1) == whole);
  // In portions all but the rest of each record.
  const uint32_t portion = 1 + data[1] * 16U;
  const auto portions = records_of({bytes}, portion);
  for (size_t i = 0; i < portions.size(); ++i) {
    assert(portions[i] == whole.at(i).substr(0, whole[i].size() / portion * portion));
  }
  return 0;
}
