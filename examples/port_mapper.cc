// port_mapper: answers which port a program is registered on (RFC 1833, version 2).
//
// The server side of one RPC procedure, with the filters of the RPC runtime: what arrives is
// decoded as a call, and its reply is written with the stream's own operations. It plays a
// management station's own port mapper, and knows only what its arguments say.
#include <getopt.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "liblocal/startup/vxinit.h"
#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/portmap/pmap.h"
#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/xdr_object.h"

namespace {

constexpr size_t kMaxMessage = 8800;
constexpr size_t kMaxRegistrations = 64;

struct Mapper {
  long port = kOwnMapperPort;
  pmap registered[kMaxRegistrations];
  size_t count = 0;
};

uint32_t find_port(const Mapper& mapper, const pmap& wanted) {
  for (size_t i = 0; i < mapper.count; ++i) {
    const pmap& each = mapper.registered[i];
    if (each.program == wanted.program && each.version == wanted.version &&
        each.protocol == wanted.protocol) {
      return static_cast<uint32_t>(each.port);
    }
  }
  return 0;
}

void put(XDR* xdrs, std::initializer_list<uint32_t> words) {
  for (uint32_t word : words) xdr_uint32_t(xdrs, &word);
}

// Writes the reply to `call`, whose arguments come next on `arguments`.
void answer(const Mapper& mapper, const rpc_call_message& call, XDR* arguments, XDR* reply) {
  put(reply, {static_cast<uint32_t>(call.transaction), kRpcReply, kReplyAccepted});
  opaque_auth none = __brix_null_auth;
  __brix_xdr_opaque_auth(reply, &none);
  pmap wanted{};
  if (call.program != kPmapProgram) {
    put(reply, {kAcceptProgramUnavailable});
  } else if (call.version != kPmapVersion) {
    put(reply, {kAcceptProgramMismatch, kPmapVersion, kPmapVersion});
  } else if (call.procedure == 0) {
    put(reply, {kAcceptSuccess});
  } else if (call.procedure != kPmapGetPort) {
    put(reply, {kAcceptProcedureUnavailable});
  } else if (!__brix_xdr_pmap(arguments, &wanted)) {
    put(reply, {kAcceptGarbageArguments});
  } else {
    uint32_t port = find_port(mapper, wanted);
    put(reply, {kAcceptSuccess, port});
    printf("program %lu version %lu over protocol %lu: port %u\n", wanted.program, wanted.version,
           wanted.protocol, port);
  }
}

// Receives one datagram and answers it, unless it is no call.
void serve_one(const Mapper& mapper, int endpoint) {
  uint8_t received[kMaxMessage];
  sockaddr_in from{};
  socklen_t size = sizeof from;
  auto* sender = reinterpret_cast<sockaddr*>(&from);
  ssize_t length = recvfrom(endpoint, received, sizeof received, 0, sender, &size);
  if (length < 0) return;
  XDR arguments;
  __brix_xdrmem_create(&arguments, received, static_cast<int32_t>(length), xdr_op::kDecode);
  rpc_call_message call{};
  if (__brix_xdr_callmsg(&arguments, &call)) {
    uint8_t sent[64];
    XDR reply;
    __brix_xdrmem_create(&reply, sent, sizeof sent, xdr_op::kEncode);
    answer(mapper, call, &arguments, &reply);
    sendto(endpoint, sent, reply.ops->get_position(&reply), 0, sender, size);
  }
  __brix_xdr_free(xdr_filter<__brix_xdr_callmsg>, &call);
}

int listen_on(long port) {
  int endpoint = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(static_cast<uint16_t>(port));
  if (endpoint < 0 || bind(endpoint, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0) {
    perror("port_mapper: cannot listen");
    exit(1);
  }
  return endpoint;
}

[[noreturn]] void usage(FILE* stream, int status) {
  fprintf(stream,
          "usage: port_mapper [--port N] [PROGRAM,VERSION,PROTOCOL,PORT ...]\n"
          "Answers port mapper calls over UDP from the registrations given. PROTOCOL is\n"
          "the IP protocol's number: 17 for UDP, 6 for TCP.\n"
          "  --port N  listen on UDP port N (7938)\n"
          "  --help    print this text\n"
          "Ends with status 1 when it cannot listen.\n");
  exit(status);
}

void add_registration(Mapper* mapper, const char* text) {
  pmap each{};
  int end = 0;
  if (mapper->count == kMaxRegistrations ||
      sscanf(text, "%lu,%lu,%lu,%lu%n", &each.program, &each.version, &each.protocol, &each.port,
             &end) != 4 ||
      text[end] != '\0') {
    usage(stderr, 1);
  }
  mapper->registered[mapper->count++] = each;
}

Mapper parse_arguments(int argc, char** argv) {
  constexpr option kOptions[] = {
      {"port", required_argument, nullptr, 'p'}, {"help", no_argument, nullptr, 'h'}, {}};
  Mapper mapper;
  for (int option; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    if (option == 'p') {
      mapper.port = strtol(optarg, nullptr, 10);
    } else {
      option == 'h' ? usage(stdout, 0) : usage(stderr, 1);
    }
  }
  if (mapper.port < 1 || mapper.port > 65535) usage(stderr, 1);
  for (; optind < argc; ++optind) add_registration(&mapper, argv[optind]);
  return mapper;
}

}  // namespace

int main(int argc, char** argv) {
  vx_set_progname(argv[0]);
  _vxinit("port_mapper", argc, argv);
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  Mapper mapper = parse_arguments(argc, argv);
  int endpoint = listen_on(mapper.port);
  printf("Answering port mapper calls on UDP port %ld.\n", mapper.port);
  for (;;) serve_one(mapper, endpoint);
}
