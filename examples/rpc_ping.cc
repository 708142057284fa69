// Calls the null procedure of an RPC program, which does nothing but answer.
//
//   rpc_ping HOST PROGRAM VERSION [udp|tcp]
//
// The host's port mapper is asked for the port. Prints the result or the error; exits
// with 0 when the program answered.
#include <cstdlib>

#include "liblocal/startup/vxinit.h"
#include "liblocal/text/vxprint.h"
#include "rpc/c_gen.h"
#include "rpc/handle/c_perror.h"

namespace {

constexpr unsigned long kNullProcedure = 0;

int ping(const char* host, unsigned long program, unsigned long version, const char* transport) {
  CLIENT* client = __brix_clnt_create(host, program, version, transport);
  if (client == nullptr) {
    __brix_clnt_pcreateerror(host);
    return 1;
  }
  clnt_stat status = client->ops->call(client, kNullProcedure, __brix_xdr_void, nullptr,
                                       __brix_xdr_void, nullptr, {25, 0});
  if (status == RPC_SUCCESS) {
    vxprintf("program %lu version %lu is ready\n", program, version);
  } else {
    __brix_clnt_perror(client, host);
  }
  client->ops->destroy(client);
  return status == RPC_SUCCESS ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  vx_set_progname(argv[0]);
  _vxinit("rpc_ping", argc, argv);
  if (argc < 4 || argc > 5) {
    vxfprintf(stderr, "usage: rpc_ping HOST PROGRAM VERSION [udp|tcp]\n");
    return 1;
  }
  return ping(argv[1], strtoul(argv[2], nullptr, 10), strtoul(argv[3], nullptr, 10),
              argc == 5 ? argv[4] : "tcp");
}
