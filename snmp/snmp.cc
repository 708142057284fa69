#include "snmp/snmp.h"

#include <cstdlib>
#include <cstring>

#include "liblocal/messages/catgets.h"
#include "liblocal/text/vxprint.h"
#include "snmp/asn1.h"
#include "snmp/snmp_auth.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"

namespace {

constexpr int32_t kAddressBytes = 4;
constexpr int32_t kMaxShortLength = 127;  // the longest contents behind a header of 2 bytes
constexpr int32_t kShortHeader = asn_header_size(kMaxShortLength);
constexpr long kVersion1 = 0;  // SNMPv1 as a message states it

int32_t distance(const uint8_t* from, const uint8_t* to) { return static_cast<int32_t>(to - from); }

// As close_item, for contents of 128 bytes and more: they move when the real header is longer.
uint8_t* close_long_item(uint8_t* header, uint8_t* end, int32_t* room) {
  uint64_t provisional = 0;
  uint8_t* contents = header + distance(header, asn_parse_length(header + 1, &provisional));
  int32_t length = distance(contents, end);
  int32_t length_size = asn_length_size(length);
  int32_t growth = distance(contents, header + 1) + length_size;
  if (*room < growth) return nullptr;
  *room -= growth;
  shift_bytes(contents, length, growth);
  return asn_build_length(header + 1, &length_size, length) != nullptr ? end + growth : nullptr;
}

// Gives the item that was built behind a provisional header and ends at `end` (null: the
// result is null) its length. Returns its end, or null when `*room` cannot hold the header.
uint8_t* close_item(uint8_t* header, uint8_t* end, int32_t* room) {
  if (end == nullptr) return nullptr;
  int32_t length = distance(header, end) - kShortHeader;
  if (length > kMaxShortLength) return close_long_item(header, end, room);
  header[1] = static_cast<uint8_t>(length);
  return end;
}

uint8_t* build_value(uint8_t* at, int32_t* room, uint8_t type, const void* value,
                     int32_t value_length) {
  switch (type) {
    case kAsnInteger:
    case kSnmpCounter:
    case kSnmpGauge:
    case kSnmpTimeTicks:
      return asn_build_int(at, room, type, static_cast<const long*>(value), sizeof(long));
    case kAsnOctetString:
    case kSnmpIpAddress:
    case kSnmpOpaque:
      return asn_build_string(at, room, type, static_cast<const uint8_t*>(value), value_length);
    case kAsnNull:
      return asn_build_null(at, room, type);
    case kAsnObjectId:
      return asn_build_objid(at, room, type, static_cast<const uint64_t*>(value),
                             value_length / static_cast<int32_t>(sizeof(uint64_t)));
    default:
      return nullptr;
  }
}

uint8_t* build_long(uint8_t* at, int32_t* room, uint8_t tag, const long& value) {
  return asn_build_int(at, room, tag, &value, sizeof value);
}

uint8_t* build_trap_fields(uint8_t* at, int32_t* room, const snmp_pdu& trap) {
  const auto* address = reinterpret_cast<const uint8_t*>(&trap.agent_address);
  const auto& ticks = reinterpret_cast<const long&>(trap.time_stamp);
  at = asn_build_objid(at, room, kAsnObjectId, trap.enterprise, trap.enterprise_length);
  at = asn_build_string(at, room, kSnmpIpAddress, address, kAddressBytes);
  at = build_long(at, room, kAsnInteger, trap.generic_trap);
  at = build_long(at, room, kAsnInteger, trap.specific_trap);
  return build_long(at, room, kSnmpTimeTicks, ticks);
}

uint8_t* build_request_fields(uint8_t* at, int32_t* room, const snmp_pdu& request) {
  at = build_long(at, room, kAsnInteger, request.request_id);
  at = build_long(at, room, kAsnInteger, request.error_status);
  return build_long(at, room, kAsnInteger, request.error_index);
}

uint8_t* build_variables(uint8_t* at, int32_t* room, const snmp_var* var) {
  for (; at != nullptr && var != nullptr; var = var->next) {
    at = snmp_build_var_op(at, var->name, &var->name_length, var->type, var->value_length,
                           var->value, room);
  }
  return at;
}

struct Community {
  const uint8_t* bytes;
  int32_t length;
};

// Builds a whole message front to back, with items that have no contents yet, and then gives
// them their lengths, from the innermost outwards. `*length` is the room at `packet` on entry and
// the message's length on return; `limit` is the longest PDU. False when the message cannot be
// built.
bool build_message(uint8_t* packet, int32_t* length, Community community, const snmp_pdu& pdu,
                   int32_t limit) {
  int32_t room = *length;
  uint8_t* header =
      snmp_auth_build(packet, &room, community.bytes, &community.length, &kVersion1, 0);
  uint8_t* fields = asn_build_null(header, &room, static_cast<uint8_t>(pdu.command));
  uint8_t* sequence = pdu.command == kSnmpTrap ? build_trap_fields(fields, &room, pdu)
                                               : build_request_fields(fields, &room, pdu);
  uint8_t* bindings = asn_build_null(sequence, &room, kAsnSequence);
  uint8_t* end = build_variables(bindings, &room, pdu.variables);
  end = close_item(sequence, end, &room);
  end = close_item(header, end, &room);
  if (end == nullptr || distance(header, end) > limit) return false;
  end = close_item(packet, end, &room);
  if (end == nullptr) return false;
  *length = distance(packet, end);
  return true;
}

// Reads the header of an item whose tag is `wanted`.
const uint8_t* parse_header(const uint8_t* at, int32_t* left, uint8_t wanted) {
  uint8_t tag = 0;
  at = asn_parse_header(at, left, &tag);
  return tag == wanted ? at : nullptr;
}

const uint8_t* parse_long(const uint8_t* at, int32_t* left, uint8_t wanted, long* value) {
  uint8_t tag = 0;
  at = asn_parse_int(at, left, &tag, value, sizeof *value);
  return tag == wanted ? at : nullptr;
}

const uint8_t* parse_objid(const uint8_t* at, int32_t* left, uint64_t* subids, int32_t* count) {
  uint8_t tag = 0;
  at = asn_parse_objid(at, left, &tag, subids, count);
  return tag == kAsnObjectId ? at : nullptr;
}

// Reads an object identifier of at most 64 sub-identifiers into a new array.
const uint8_t* parse_new_objid(const uint8_t* at, int32_t* left, uint64_t** subids,
                               int32_t* count) {
  uint64_t decoded[kAsnMaxSubids];
  int32_t decoded_count = kAsnMaxSubids;
  at = parse_objid(at, left, decoded, &decoded_count);
  if (at == nullptr) return nullptr;
  *subids = snmp_copy_objid(decoded, decoded_count);
  if (*subids == nullptr) return nullptr;
  *count = decoded_count;
  return at;
}

const uint8_t* parse_trap_fields(const uint8_t* at, int32_t* left, snmp_pdu* trap) {
  uint8_t tag = 0;
  auto* address = reinterpret_cast<uint8_t*>(&trap->agent_address);
  int32_t address_length = kAddressBytes;
  at = parse_new_objid(at, left, &trap->enterprise, &trap->enterprise_length);
  at = asn_parse_string(at, left, &tag, address, &address_length);
  if (at == nullptr || tag != kSnmpIpAddress || address_length != kAddressBytes) return nullptr;
  at = parse_long(at, left, kAsnInteger, &trap->generic_trap);
  at = parse_long(at, left, kAsnInteger, &trap->specific_trap);
  return parse_long(at, left, kSnmpTimeTicks, reinterpret_cast<long*>(&trap->time_stamp));
}

const uint8_t* parse_request_fields(const uint8_t* at, int32_t* left, snmp_pdu* request) {
  at = parse_long(at, left, kAsnInteger, &request->request_id);
  at = parse_long(at, left, kAsnInteger, &request->error_status);
  return parse_long(at, left, kAsnInteger, &request->error_index);
}

bool parse_int_value(snmp_var* var, const uint8_t* item, int32_t left) {
  auto* value = static_cast<long*>(malloc(sizeof(long)));
  var->value = value;
  if (value == nullptr) return false;
  var->value_length = sizeof *value;
  return asn_parse_int(item, &left, &var->type, value, sizeof *value) != nullptr;
}

// An empty string has no bytes to own: its value stays null.
bool parse_string_value(snmp_var* var, const uint8_t* item, int32_t left, int32_t length) {
  if (length == 0) return true;
  auto* value = static_cast<uint8_t*>(malloc(static_cast<size_t>(length)));
  var->value = value;
  if (value == nullptr) return false;
  var->value_length = length;
  return asn_parse_string(item, &left, &var->type, value, &var->value_length) != nullptr;
}

bool parse_objid_value(snmp_var* var, const uint8_t* item, int32_t left) {
  uint64_t* value = nullptr;
  int32_t count = 0;
  if (parse_new_objid(item, &left, &value, &count) == nullptr) return false;
  var->value = value;
  var->value_length = count * static_cast<int32_t>(sizeof *value);
  return true;
}

// Decodes the value item of `length` content bytes that lies in the `left` bytes
// at `item`. A type that is not ours leaves the binding without a value.
bool parse_value(snmp_var* var, const uint8_t* item, int32_t left, int32_t length) {
  switch (var->type) {
    case kAsnInteger:
    case kSnmpCounter:
    case kSnmpGauge:
    case kSnmpTimeTicks:
      return parse_int_value(var, item, left);
    case kAsnOctetString:
    case kSnmpIpAddress:
    case kSnmpOpaque:
      return parse_string_value(var, item, left, length);
    case kAsnNull:
      return true;
    case kAsnObjectId:
      return parse_objid_value(var, item, left);
    default:
      vxfprintf(stderr, vxcatgets(Catd, kCommandMessageSet, 63, "bad type returned (%x)\n"),
                var->type);
      return true;
  }
}

const uint8_t* parse_var(const uint8_t* at, int32_t* left, snmp_var* var) {
  uint64_t name[kAsnMaxSubids];
  int32_t name_length = kAsnMaxSubids;
  int32_t value_length = 0;
  const uint8_t* value = nullptr;
  const uint8_t* end =
      snmp_parse_var_op(at, name, &name_length, &var->type, &value_length, &value, left);
  if (end == nullptr) return nullptr;
  var->name = snmp_copy_objid(name, name_length);
  if (var->name == nullptr) return nullptr;
  var->name_length = name_length;
  return parse_value(var, value, distance(value, end), value_length) ? end : nullptr;
}

bool parse_variables(const uint8_t* at, int32_t left, snmp_pdu* pdu) {
  at = parse_header(at, &left, kAsnSequence);
  if (at == nullptr) return false;
  for (snmp_var** link = &pdu->variables; left > 0; link = &(*link)->next) {
    snmp_var* var = snmp_new_var(link);
    if (var == nullptr) return false;
    at = parse_var(at, &left, var);
    if (at == nullptr) return false;
  }
  return true;
}

void report_version(long version) {
  vxfprintf(stderr, vxcatgets(Catd, kCommandMessageSet, 61, "Wrong version: %d\n"),
            static_cast<int>(version));
  vxfprintf(stderr, "%s", vxcatgets(Catd, kCommandMessageSet, 62, "Continuing anyway\n"));
}

}  // namespace

void shift_bytes(uint8_t* at, int32_t count, int32_t distance) {
  memmove(at + distance, at, static_cast<size_t>(count));
}

uint8_t* snmp_build_var_op(uint8_t* at, const uint64_t* name, const int32_t* name_length,
                           uint8_t type, int32_t value_length, const void* value, int32_t* room) {
  uint8_t* contents = asn_build_null(at, room, kAsnSequence);
  uint8_t* end = asn_build_objid(contents, room, kAsnObjectId, name, *name_length);
  end = build_value(end, room, type, value, value_length);
  return close_item(at, end, room);
}

const uint8_t* snmp_parse_var_op(const uint8_t* at, uint64_t* name, int32_t* name_length,
                                 uint8_t* type, int32_t* value_length, const uint8_t** value,
                                 int32_t* left) {
  int32_t contents = *left;
  const uint8_t* start = at;
  at = parse_header(at, &contents, kAsnSequence);
  if (at == nullptr) return nullptr;
  int32_t whole = distance(start, at) + contents;
  at = parse_objid(at, &contents, name, name_length);
  *value = at;
  *value_length = contents;
  at = asn_parse_header(at, value_length, type);
  if (at == nullptr) return nullptr;
  *left -= whole;
  return start + whole;
}

int snmp_build_packet(const snmp_session* session, const snmp_pdu* pdu, uint8_t* packet,
                      int32_t* length) {
  Community community = {session->community, session->community_length};
  return build_message(packet, length, community, *pdu, kSnmpMaxPacket) ? 0 : -1;
}

int32_t snmp_build_trap(uint8_t* packet, int32_t* length, const uint64_t* enterprise,
                        int32_t enterprise_length, in_addr_t agent_address, long generic_trap,
                        long specific_trap, unsigned long time_stamp, const uint64_t* name,
                        int32_t name_length, uint8_t type, int32_t value_length,
                        const void* value) {
  static constexpr uint8_t kPublic[] = {'p', 'u', 'b', 'l', 'i', 'c'};
  snmp_var binding{};
  binding.name = const_cast<uint64_t*>(name);
  binding.name_length = name_length;
  binding.type = type;
  binding.value = const_cast<void*>(value);
  binding.value_length = value_length;
  snmp_pdu trap{};
  trap.command = kSnmpTrap;
  trap.enterprise = const_cast<uint64_t*>(enterprise);
  trap.enterprise_length = enterprise_length;
  trap.agent_address = agent_address;
  trap.generic_trap = generic_trap;
  trap.specific_trap = specific_trap;
  trap.time_stamp = time_stamp;
  trap.variables = &binding;
  bool built = build_message(packet, length, {kPublic, sizeof kPublic}, trap, INT32_MAX);
  return built ? *length : 0;
}

SnmpParse snmp_parse_packet(const snmp_session* session, snmp_pdu* pdu,
                            std::span<const uint8_t> packet) {
  auto left = static_cast<int32_t>(packet.size());
  uint8_t community[kSnmpMaxCommunity];
  int32_t community_length = sizeof community;
  long version = 0;
  const uint8_t* at = snmp_auth_parse(packet.data(), &left, community, &community_length, &version);
  if (at == nullptr) return SnmpParse::kMangled;
  if (version != kVersion1) report_version(version);
  if (session->auth_hook != nullptr) {
    at = session->auth_hook(at, &left, community, community_length);
    if (at == nullptr) return SnmpParse::kDropped;
  }
  uint8_t command = 0;
  at = asn_parse_header(at, &left, &command);
  if (at == nullptr) return SnmpParse::kMangled;
  pdu->command = command;
  at = command == kSnmpTrap ? parse_trap_fields(at, &left, pdu)
                            : parse_request_fields(at, &left, pdu);
  return parse_variables(at, left, pdu) ? SnmpParse::kDone : SnmpParse::kMangled;
}
