// The receiving side of a record stream: whether the bytes come whole or in pieces, it reads the
// same records and refuses the same. The first byte of the input says how large the pieces are,
// the second how many bytes are read at once.
#include <vector>

#include "fuzz/harness.h"
#include "rpc/xdr/x_rec.h"
#include "tests/xdr_streams.h"

// The records of the stream, read in portions until one fails; of the last one what came.
static std::vector<std::string> records_of(Pipe pipe, uint32_t portion) {
  std::vector<std::string> records;
  XDR xdrs{};
  assert(__brix_xdrrec_create(&xdrs, 100, 100, &pipe, Pipe::read, Pipe::write));
  xdrs.operation = xdr_op::kDecode;
  while (__brix_xdrrec_skiprecord(&xdrs)) {
    std::string& record = records.emplace_back();
    std::string bytes(portion, '?');
    while (xdrs.ops->get_bytes(&xdrs, bytes.data(), portion)) record += bytes;
  }
  xdrs.ops->destroy(&xdrs);
  return records;
}

void check_input(std::string_view input) {
  if (input.size() < 2) return;
  const uint8_t most = std::max<uint8_t>(static_cast<uint8_t>(input[0]), 1);
  const uint32_t portion = 1 + static_cast<uint8_t>(input[1]) * 16U;
  const std::string bytes(input.substr(2));
  assert(records_of({bytes, most}, portion) == records_of({bytes}, portion));
}
