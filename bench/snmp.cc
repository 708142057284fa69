// The SNMP engine: traps and requests beside bare system calls, messages beside straight-line
// code for this one message.
#include "snmp/snmp.h"

#include <bit>
#include <cstring>

#include "bench/peer.h"
#include "snmp/asn1.h"
#include "snmp/snmp_api.h"
#include "snmp/snmp_client.h"

namespace {

uint64_t enterprise[] = {1, 3, 6, 1, 4, 1, 5051};
constexpr uint64_t kSysDescr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
uint8_t community[] = {'p', 'u', 'b', 'l', 'i', 'c'};

// A trap of one text, as a packet and as the record that it is built from.
struct ReferenceTrap {
  snmp_session session;
  snmp_pdu* pdu = snmp_pdu_create(kSnmpTrap);
  uint8_t packet[kSnmpMaxPacket] = {};
  int32_t length = sizeof packet;

  ReferenceTrap() {
    session.community = community;
    session.community_length = sizeof community;
    pdu->enterprise = enterprise;
    pdu->enterprise_length = std::size(enterprise);
    pdu->agent_address = inet_addr("10.1.2.3");
    pdu->generic_trap = 6;
    pdu->specific_trap = 1;
    pdu->time_stamp = 12345;
    require(snmp_add_var(pdu, kSysDescr, kAsnOctetString, "disk full", 9));
    require(snmp_build_packet(&session, pdu, packet, &length) == 0);
  }
};

uint8_t* put_int(uint8_t* at, uint8_t tag, long value) {
  auto number = static_cast<int32_t>(value);
  int bytes = std::bit_width(static_cast<uint32_t>(number ^ (number >> 31))) / 8 + 1;
  *at++ = tag;
  *at++ = static_cast<uint8_t>(bytes);
  while (bytes-- > 0) *at++ = static_cast<uint8_t>(number >> (8 * bytes));
  return at;
}

uint8_t* put_bytes(uint8_t* at, uint8_t tag, const void* bytes, int32_t count) {
  *at++ = tag;
  *at++ = static_cast<uint8_t>(count);
  memcpy(at, bytes, static_cast<size_t>(count));
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

// Front to back: every length is below 128 and known once its contents are there.
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
  at = put_bytes(at, kAsnOctetString, session.community, session.community_length);
  uint8_t* trap = open(kSnmpTrap);
  at = put_objid(at, pdu.enterprise, pdu.enterprise_length);
  at = put_bytes(at, kSnmpIpAddress, &pdu.agent_address, sizeof pdu.agent_address);
  at = put_int(at, kAsnInteger, pdu.generic_trap);
  at = put_int(at, kAsnInteger, pdu.specific_trap);
  at = put_int(at, kSnmpTimeTicks, static_cast<long>(pdu.time_stamp));
  uint8_t* bindings = open(kAsnSequence);
  uint8_t* first = open(kAsnSequence);
  at = put_objid(at, binding.name, binding.name_length);
  at = put_bytes(at, kAsnOctetString, binding.value, binding.value_length);
  close(first);
  close(bindings);
  close(trap);
  close(message);
  return at;
}

void measure_building() {
  ReferenceTrap trap;
  uint8_t packet[kSnmpMaxPacket];
  const uint8_t* end = packet;
  compare(
      "build the reference trap", 3.3,
      [&] {
        touch(trap);
        trap.length = sizeof trap.packet;
        require(snmp_build_packet(&trap.session, trap.pdu, trap.packet, &trap.length) == 0);
        touch(trap.packet);
      },
      [&] {
        touch(trap);
        end = put_trap(packet, trap.session, *trap.pdu);
        touch(packet);
      });
  require(end - packet == trap.length);
  require(memcmp(packet, trap.packet, static_cast<size_t>(trap.length)) == 0);
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

// Trusts every length and tag, and makes the same five allocations.
snmp_pdu* take_trap(const uint8_t* at) {
  auto* pdu = static_cast<snmp_pdu*>(calloc(1, sizeof(snmp_pdu)));
  int32_t length = 0;
  at += 2;
  touch(take_int(at));  // version
  uint8_t received[kSnmpMaxCommunity];
  const uint8_t* bytes = take_bytes(at, &length);
  memcpy(received, bytes, static_cast<size_t>(length));
  touch(received);
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

void measure_decoding() {
  ReferenceTrap trap;
  compare(
      "decode the reference trap", 1.5,
      [&] {
        snmp_pdu* pdu = snmp_pdu_create(0);
        auto packet = std::span(trap.packet).first(static_cast<size_t>(trap.length));
        require(snmp_parse_packet(&trap.session, pdu, packet) == SnmpParse::kDone);
        touch(*pdu);
        snmp_free_pdu(pdu);
      },
      [&] {
        touch(trap);
        snmp_pdu* pdu = take_trap(trap.packet);
        touch(*pdu);
        free(pdu->variables->name);
        free(pdu->variables->value);
        free(pdu->variables);
        free(pdu->enterprise);
        free(pdu);
      });
}

snmp_session* open_session(const sockaddr_in& peer) {
  snmp_session wanted;
  char host[] = "127.0.0.1";
  wanted.peer_name = host;
  wanted.remote_port = ntohs(peer.sin_port);
  snmp_session* session = snmp_open(&wanted);
  require(session != nullptr);
  return session;
}

// Nobody reads what arrives.
void measure_traps() {
  sockaddr_in station;
  const int receiver = bound_socket(SOCK_DGRAM, 0, &station);
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  snmp_session* session = open_session(station);
  ReferenceTrap trap;
  compare(
      "a trap through an open session", 1.12, [&] { require(snmp_send(session, trap.pdu) != 0); },
      [&] {
        require(sendto(fd, trap.packet, static_cast<size_t>(trap.length), 0,
                       reinterpret_cast<sockaddr*>(&station), sizeof station) > 0);
      });
  snmp_close(session);
  close(fd);
  close(receiver);
}

snmp_pdu* make_request() {
  snmp_pdu* request = snmp_pdu_create(kSnmpGetRequest);
  snmp_add_null_var(request, kSysDescr, std::size(kSysDescr));
  return request;
}

size_t respond(uint8_t* message, size_t size) {
  message[13] = kSnmpGetResponse;  // behind version and community
  return size;
}

void measure_requests() {
  sockaddr_in agent;
  start_answerer(bound_socket(SOCK_DGRAM, 0, &agent), respond);
  snmp_session* session = open_session(agent);
  snmp_synch_setup(session);
  ReferenceTrap trap;
  snmp_pdu* pdu = make_request();
  pdu->request_id = INT32_MAX;
  trap.length = sizeof trap.packet;
  require(snmp_build_packet(&trap.session, pdu, trap.packet, &trap.length) == 0);
  const auto length = static_cast<size_t>(trap.length);
  snmp_free_pdu(pdu);
  const int bare = socket(AF_INET, SOCK_DGRAM, 0);
  compare(
      "a synchronous request", 1.15,
      [&] {
        snmp_pdu* response = nullptr;
        require(snmp_synch_response(session, make_request(), &response) == kSnmpSynchSuccess);
        snmp_free_pdu(response);
      },
      [&] { require(exchange(bare, agent, trap.packet, length) == trap.length); });
  snmp_close(session);
  close(bare);
}

}  // namespace

void measure_snmp() {
  measure_traps();
  measure_requests();
  measure_building();
  measure_decoding();
}
