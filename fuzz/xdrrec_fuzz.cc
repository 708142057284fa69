// The receiving side of a record stream: whether the bytes come whole or in pieces, it reads the
// same records and refuses the same. The first byte of the input says how large the pieces are,
// the second how many bytes are read at once; where that is one, each piece comes after a stall.
#include <vector>

#include "fuzz/harness.h"
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
    auto read = [&] { return xdrs.ops->get_bytes(&xdrs, bytes.data(), portion); };
    while (persist(pipe, read)) record += bytes;
  }
  xdrs.ops->destroy(&xdrs);
  return records;
}

void check_input(std::string_view input) {
  if (input.size() < 2) return;
  const uint8_t most = std::max<uint8_t>(static_cast<uint8_t>(input[0]), 1);
  const uint32_t portion = 1 + static_cast<uint8_t>(input[1]) * 16U;
  const std::string bytes(input.substr(2));
  auto records = records_of({bytes}, 1);
  // In portions all but the rest of each record.
  for (std::string& record : records) record.resize(record.size() / portion * portion);
  assert(records_of({bytes, most, portion == 1}, portion) == records);
}
