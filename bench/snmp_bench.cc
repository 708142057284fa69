// The SNMP engine's hot paths, each beside its floor.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "bench/paths.h"
#include "snmp/asn1.h"
#include "snmp/snmp.h"
#include "snmp/snmp_api.h"
#include "snmp/snmp_client.h"

namespace {

uint64_t enterprise[] = {1, 3, 6, 1, 4, 1, 5051};
uint64_t sys_descr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
uint8_t community[] = {'p', 'u', 'b', 'l', 'i', 'c'};
char text[] = "disk full";

constexpr uint8_t kReferenceTrap[] = {
    0x30, 0x3F, 0x02, 0x01, 0x00, 0x04, 0x06, 0x70, 0x75, 0x62, 0x6C, 0x69, 0x63,
    0xA4, 0x32, 0x06, 0x07, 0x2B, 0x06, 0x01, 0x04, 0x01, 0xA7, 0x3B, 0x40, 0x04,
    0x0A, 0x01, 0x02, 0x03, 0x02, 0x01, 0x06, 0x02, 0x01, 0x01, 0x43, 0x02, 0x30,
    0x39, 0x30, 0x17, 0x30, 0x15, 0x06, 0x08, 0x2B, 0x06, 0x01, 0x02, 0x01, 0x01,
    0x01, 0x00, 0x04, 0x09, 0x64, 0x69, 0x73, 0x6B, 0x20, 0x66, 0x75, 0x6C, 0x6C};

[[noreturn]] void fail(const char* what) {
  fprintf(stderr, "snmp_bench: %s\n", what);
  exit(1);
}

void require_reference(const uint8_t* packet, size_t length) {
  if (length != sizeof kReferenceTrap || memcmp(packet, kReferenceTrap, length) != 0) {
    fail("the reference trap came out wrong");
  }
}

// --- Building a trap -----------------------------------------------------------

// The record of the reference trap, which owns nothing.
struct PreparedTrap {
  snmp_session session{};
  snmp_var binding{};
  snmp_pdu pdu{};

  PreparedTrap() {
    session.community = community;
    session.community_length = sizeof community;
    binding.name = sys_descr;
    binding.name_length = std::size(sys_descr);
    binding.type = kAsnOctetString;
    binding.value = text;
    binding.value_length = sizeof text - 1;
    pdu.command = kSnmpTrap;
    pdu.enterprise = enterprise;
    pdu.enterprise_length = std::size(enterprise);
    pdu.agent_address = inet_addr("10.1.2.3");
    pdu.generic_trap = 6;
    pdu.specific_trap = 1;
    pdu.time_stamp = 12345;
    pdu.variables = &binding;
  }
};

void build_trap(benchmark::State& state) {
  PreparedTrap trap;
  uint8_t packet[kSnmpMaxPacket];
  int32_t length = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(&trap);
    benchmark::ClobberMemory();
    length = sizeof packet;
    if (snmp_build_packet(&trap.session, &trap.pdu, packet, &length) != 0) fail("build");
    benchmark::DoNotOptimize(packet);
  }
  require_reference(packet, static_cast<size_t>(length));
}

uint8_t* put_int(uint8_t* at, uint8_t tag, long value) {
  auto number = static_cast<int32_t>(value);
  int bytes = std::bit_width(static_cast<uint32_t>(number ^ (number >> 31))) / 8 + 1;
  *at++ = tag;
  *at++ = static_cast<uint8_t>(bytes);
  while (bytes-- > 0) *at++ = static_cast<uint8_t>(number >> (8 * bytes));
  return at;
}

uint8_t* put_bytes(uint8_t* at, uint8_t tag, const void* bytes, size_t count) {
  *at++ = tag;
  *at++ = static_cast<uint8_t>(count);
  memcpy(at, bytes, count);
  return at + count;
}

uint8_t* put_objid(uint8_t* at, const uint64_t* subids, int32_t count) {
  *at++ = kAsnObjectId;
  uint8_t* length = at++;
  *at++ = static_cast<uint8_t>(subids[0] * 40 + subids[1]);
  for (int32_t i = 2; i < count; ++i) {
    auto number = static_cast<uint32_t>(subids[i]);
    if (number >= 0x80) {
      for (int shift = 7 * ((std::bit_width(number) - 1) / 7); shift > 0; shift -= 7) {
        *at++ = static_cast<uint8_t>(0x80 | number >> shift);
      }
    }
    *at++ = number & 0x7F;
  }
  *length = static_cast<uint8_t>(at - length - 1);
  return at;
}

// The same record front to back into the same bytes: one binding with a text,
// every length below 128 and known once its contents are there.
uint8_t* put_trap(uint8_t* packet, const snmp_session& session, const snmp_pdu& pdu) {
  const snmp_var& binding = *pdu.variables;
  uint8_t* at = packet;
  auto open = [&at](uint8_t tag) {
    *at = tag;
    at += 2;
    return at;
  };
  auto close = [&at](uint8_t* contents) { contents[-1] = static_cast<uint8_t>(at - contents); };
  uint8_t* message = open(kAsnSequence);
  at = put_int(at, kAsnInteger, 0);
  at = put_bytes(at, kAsnOctetString, session.community,
                 static_cast<size_t>(session.community_length));
  uint8_t* trap = open(kSnmpTrap);
  at = put_objid(at, pdu.enterprise, pdu.enterprise_length);
  at = put_bytes(at, kSnmpIpAddress, &pdu.agent_address, sizeof pdu.agent_address);
  at = put_int(at, kAsnInteger, pdu.generic_trap);
  at = put_int(at, kAsnInteger, pdu.specific_trap);
  at = put_int(at, kSnmpTimeTicks, static_cast<long>(pdu.time_stamp));
  uint8_t* bindings = open(kAsnSequence);
  uint8_t* first = open(kAsnSequence);
  at = put_objid(at, binding.name, binding.name_length);
  at = put_bytes(at, kAsnOctetString, binding.value, static_cast<size_t>(binding.value_length));
  close(first);
  close(bindings);
  close(trap);
  close(message);
  return at;
}

void build_trap_floor(benchmark::State& state) {
  PreparedTrap trap;
  uint8_t packet[kSnmpMaxPacket];
  uint8_t* end = packet;
  for (auto _ : state) {
    benchmark::DoNotOptimize(&trap);
    benchmark::ClobberMemory();
    end = put_trap(packet, trap.session, trap.pdu);
    benchmark::DoNotOptimize(packet);
  }
  require_reference(packet, static_cast<size_t>(end - packet));
}

// --- Decoding a trap -----------------------------------------------------------

void decode_trap(benchmark::State& state) {
  snmp_session session = {};
  for (auto _ : state) {
    snmp_pdu* pdu = snmp_pdu_create(0);
    if (snmp_parse_packet(&session, pdu, kReferenceTrap) != SnmpParse::kDone) fail("decode");
    benchmark::DoNotOptimize(pdu);
    snmp_free_pdu(pdu);
  }
}

long take_int(const uint8_t*& at) {
  int bytes = at[1];
  at += 2;
  int32_t number = static_cast<int8_t>(*at++);
  while (--bytes > 0) number = number << 8 | *at++;
  return number;
}

// The contents stay in the message; the caller copies them.
const uint8_t* take_bytes(const uint8_t*& at, int32_t* count) {
  const uint8_t* contents = at + 2;
  *count = at[1];
  at = contents + *count;
  return contents;
}

uint64_t* take_objid(const uint8_t*& at, int32_t* count) {
  const uint8_t* contents = at + 2;
  const uint8_t* end = contents + at[1];
  uint64_t decoded[kAsnMaxSubids];
  int32_t filled = 1;
  while (contents < end) {
    uint64_t number = 0;
    do {
      number = number << 7 | (*contents & 0x7F);
    } while ((*contents++ & 0x80) != 0);
    decoded[filled++] = number;
  }
  decoded[0] = decoded[1] / 40;
  decoded[1] %= 40;
  size_t bytes = static_cast<size_t>(filled) * sizeof *decoded;
  auto* subids = static_cast<uint64_t*>(malloc(bytes));
  memcpy(subids, decoded, bytes);
  *count = filled;
  at = end;
  return subids;
}

// Takes every length and tag on trust and makes the same five allocations.
snmp_pdu* take_trap(const uint8_t* at) {
  auto* pdu = static_cast<snmp_pdu*>(calloc(1, sizeof(snmp_pdu)));
  int32_t length = 0;
  at += 2;
  benchmark::DoNotOptimize(take_int(at));  // version
  uint8_t received[kSnmpMaxCommunity];
  const uint8_t* bytes = take_bytes(at, &length);
  memcpy(received, bytes, static_cast<size_t>(length));
  benchmark::DoNotOptimize(received);
  pdu->command = *at;
  at += 2;
  pdu->enterprise = take_objid(at, &pdu->enterprise_length);
  memcpy(&pdu->agent_address, take_bytes(at, &length), sizeof pdu->agent_address);
  pdu->generic_trap = take_int(at);
  pdu->specific_trap = take_int(at);
  pdu->time_stamp = static_cast<unsigned long>(take_int(at));
  at += 4;
  auto* var = static_cast<snmp_var*>(calloc(1, sizeof(snmp_var)));
  pdu->variables = var;
  var->name = take_objid(at, &var->name_length);
  var->type = *at;
  bytes = take_bytes(at, &var->value_length);
  var->value = malloc(static_cast<size_t>(var->value_length));
  memcpy(var->value, bytes, static_cast<size_t>(var->value_length));
  return pdu;
}

void decode_trap_floor(benchmark::State& state) {
  for (auto _ : state) {
    const uint8_t* packet = kReferenceTrap;
    benchmark::DoNotOptimize(packet);
    snmp_pdu* pdu = take_trap(packet);
    benchmark::DoNotOptimize(pdu);
    free(pdu->variables->name);
    free(pdu->variables->value);
    free(pdu->variables);
    free(pdu->enterprise);
    free(pdu);
  }
}

// --- A synchronous request -----------------------------------------------------

constexpr size_t kPduTagOffset = 13;  // behind version and community "public"

sockaddr_in agent{};  // the peer of both sides

// A process that turns every request into its response. It and this process share
// one processor: waking a second one takes longer than all that is measured here.
void start_agent() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(sched_getcpu(), &one);
  sched_setaffinity(0, sizeof one, &one);
  int endpoint = socket(AF_INET, SOCK_DGRAM, 0);
  agent.sin_family = AF_INET;
  agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* address = reinterpret_cast<sockaddr*>(&agent);
  socklen_t length = sizeof agent;
  if (bind(endpoint, address, length) != 0 || getsockname(endpoint, address, &length) != 0) {
    fail("no agent");
  }
  if (fork() != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) {
    uint8_t packet[kSnmpMaxPacket];
    sockaddr_in from{};
    length = sizeof from;
    ssize_t count =
        recvfrom(endpoint, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (count < 0) _exit(1);
    packet[kPduTagOffset] = kSnmpGetResponse;
    sendto(endpoint, packet, static_cast<size_t>(count), 0, reinterpret_cast<sockaddr*>(&from),
           length);
  }
}

void request(benchmark::State& state) {
  snmp_session wanted = {};
  wanted.retries = kSnmpDefaultRetries;
  wanted.timeout = kSnmpDefaultTimeout;
  char peer[] = "127.0.0.1";
  wanted.peer_name = peer;
  wanted.remote_port = ntohs(agent.sin_port);
  snmp_session* session = snmp_open(&wanted);
  if (session == nullptr) fail("no session");
  snmp_synch_setup(session);
  for (auto _ : state) {
    snmp_pdu* pdu = snmp_pdu_create(kSnmpGetRequest);
    snmp_add_null_var(pdu, sys_descr, std::size(sys_descr));
    snmp_pdu* response = nullptr;
    if (snmp_synch_response(session, pdu, &response) != kSnmpSynchSuccess) fail("no response");
    snmp_free_pdu(response);
  }
  snmp_close(session);
}

void request_floor(benchmark::State& state) {
  snmp_pdu* pdu = snmp_pdu_create(kSnmpGetRequest);
  snmp_add_null_var(pdu, sys_descr, std::size(sys_descr));
  pdu->request_id = std::numeric_limits<int32_t>::max();
  snmp_session session = PreparedTrap().session;
  uint8_t packet[kSnmpMaxPacket];
  int32_t length = sizeof packet;
  if (snmp_build_packet(&session, pdu, packet, &length) != 0) fail("build");
  snmp_free_pdu(pdu);

  int endpoint = socket(AF_INET, SOCK_DGRAM, 0);
  for (auto _ : state) {
    sendto(endpoint, packet, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr*>(&agent),
           sizeof agent);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(endpoint, &readable);
    timeval timeout = {1, 0};
    select(endpoint + 1, &readable, nullptr, nullptr, &timeout);
    uint8_t received[kSnmpMaxPacket];
    sockaddr_in from{};
    socklen_t from_length = sizeof from;
    if (recvfrom(endpoint, received, sizeof received, 0, reinterpret_cast<sockaddr*>(&from),
                 &from_length) != length) {
      fail("no response");
    }
  }
  close(endpoint);
}

constexpr Path kPaths[] = {
    {"build the reference trap", "build", build_trap, build_trap_floor, 1.8},
    {"decode the reference trap", "decode", decode_trap, decode_trap_floor, 2.0},
    {"synchronous request over loopback", "request", request, request_floor, 1.15},
};

}  // namespace

int main(int argc, char** argv) {
  start_agent();
  return measure(argc, argv, kPaths);
}
