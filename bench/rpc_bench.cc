// RPC over UDP, beside the same exchanges by bare system calls.
#include <arpa/inet.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "bench/paths.h"
#include "liblocal/base/vx_threadstorage.h"
#include "rpc/c_gen.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/portmap/pmap.h"

namespace {

constexpr timeval kRetry = {5, 0};
constexpr timeval kLimit = {25, 0};
constexpr uint8_t kCall[56] = {0, 0, 0,    0,    0, 0, 0, 0, 0, 0, 0, 2,
                               0, 1, 0x86, 0xA0, 0, 0, 0, 2, 0, 0, 0, 3};
constexpr size_t kReplySize = 28;

sockaddr_in mapper{};  // the peer of all sides

void require(bool held) {
  if (held) return;
  fprintf(stderr, "rpc_bench: an exchange failed\n");
  exit(1);
}

// A port mapper that knows every program, in a process of its own. It and this process
// share one processor: waking a second one takes longer than all that is measured here.
void start_mapper() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(sched_getcpu(), &one);
  sched_setaffinity(0, sizeof one, &one);
  int endpoint = socket(AF_INET, SOCK_DGRAM, 0);
  mapper.sin_family = AF_INET;
  mapper.sin_port = htons(kOwnMapperPort);
  mapper.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  require(bind(endpoint, reinterpret_cast<sockaddr*>(&mapper), sizeof mapper) == 0);
  if (fork() != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) {
    uint8_t message[sizeof kCall];
    sockaddr_in from{};
    socklen_t size = sizeof from;
    if (recvfrom(endpoint, message, sizeof message, 0, reinterpret_cast<sockaddr*>(&from), &size) <
        0) {
      _exit(1);
    }
    memset(message + 4, 0, kReplySize - 4);
    message[7] = 1;
    message[kReplySize - 1] = 9;
    sendto(endpoint, message, kReplySize, 0, reinterpret_cast<sockaddr*>(&from), size);
  }
}

sockaddr_in server_at(uint16_t port) {
  sockaddr_in server = mapper;
  server.sin_port = htons(port);
  return server;
}

CLIENT* make_client(uint16_t port) {
  sockaddr_in server = server_at(port);
  int socket = -1;
  CLIENT* client = clntgen_create(&server, kPmapProgram, kPmapVersion, &kRetry, &socket, 0, 0);
  require(client != nullptr);
  return client;
}

void call(benchmark::State& state) {
  CLIENT* client = make_client(kOwnMapperPort);
  for (auto _ : state) {
    pmap wanted = {100122, 0, IPPROTO_UDP, 0};
    uint16_t port = 0;
    require(client->ops->call(client, kPmapGetPort, xdr_filter<__brix_xdr_pmap>, &wanted,
                              xdr_filter<__brix_xdr_u_short>, &port, kLimit) == RPC_SUCCESS);
  }
  client->ops->destroy(client);
}

void bare_exchange(int endpoint) {
  sendto(endpoint, kCall, sizeof kCall, 0, reinterpret_cast<sockaddr*>(&mapper), sizeof mapper);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(endpoint, &readable);
  timeval timeout = kRetry;
  select(endpoint + 1, &readable, nullptr, nullptr, &timeout);
  uint8_t reply[8800];
  require(recvfrom(endpoint, reply, sizeof reply, 0, nullptr, nullptr) == kReplySize);
}

int bare_socket() {
  int endpoint = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  require(bind(endpoint, reinterpret_cast<sockaddr*>(&any), sizeof any) == 0);
  return endpoint;
}

void call_floor(benchmark::State& state) {
  int endpoint = bare_socket();
  for (auto _ : state) bare_exchange(endpoint);
  close(endpoint);
}

void create(benchmark::State& state) {
  for (auto _ : state) {
    CLIENT* client = make_client(0);
    client->ops->destroy(client);
  }
}

// A socket that asks the mapper, and one for the client.
void create_floor(benchmark::State& state) {
  for (auto _ : state) {
    int asking = bare_socket();
    bare_exchange(asking);
    close(asking);
    close(bare_socket());
  }
}

// What the block of a thread costs that serves one descriptor, in pages.
void report_page_faults() {
  std::thread([] {
    rusage before{};
    rusage after{};
    get_rpc_p_varp();
    getrusage(RUSAGE_THREAD, &before);
    require(rpc_set_server_transport(kServerTransportSlots - 1, nullptr));
    rpc_t_clean(get_rpc_t_varp());
    getrusage(RUSAGE_THREAD, &after);
    vx_threadstorage_set(Key_rpc_t_varp, nullptr);
    printf("%-40s %5ld page faults  (its slots alone would take %ld)\n", "a thread's block",
           after.ru_minflt - before.ru_minflt,
           kServerTransportSlots * sizeof(void*) / sysconf(_SC_PAGESIZE));
  }).join();
}

constexpr Path kPaths[] = {
    {"RPC call over UDP on loopback", "call", call, call_floor, 1.15},
    {"client creation with a port mapper", "create", create, create_floor, 1.1},
};

}  // namespace

int main(int argc, char** argv) {
  report_page_faults();
  start_mapper();
  return measure(argc, argv, kPaths);
}
