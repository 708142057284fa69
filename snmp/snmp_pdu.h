// PDUs and variable bindings in memory (RFC 1157, section 4.1): the records that
// the whole engine and its callers share.
//
// Everything a record owns comes from malloc and is released with free, so a
// caller may fill records by hand.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

// PDU tags, the values of snmp_pdu::command.
constexpr uint8_t kSnmpGetRequest = 0xA0;
constexpr uint8_t kSnmpGetNextRequest = 0xA1;
constexpr uint8_t kSnmpGetResponse = 0xA2;
constexpr uint8_t kSnmpSetRequest = 0xA3;
constexpr uint8_t kSnmpTrap = 0xA4;

// Value tags of SNMP's own types (RFC 1155); the plain ones stand in asn1.h.
constexpr uint8_t kSnmpIpAddress = 0x40;
constexpr uint8_t kSnmpCounter = 0x41;
constexpr uint8_t kSnmpGauge = 0x42;
constexpr uint8_t kSnmpTimeTicks = 0x43;
constexpr uint8_t kSnmpOpaque = 0x44;

/// One variable binding.
struct snmp_var {
  snmp_var* next;        // next binding of the list, or null
  uint64_t* name;        // owned: the variable's object identifier
  int32_t name_length;   // sub-identifiers in `name`
  uint8_t type;          // tag of the value
  void* value;           // owned: integers one long, strings their bytes, object
                         // identifiers their sub-identifiers, NULL none
  int32_t value_length;  // bytes at `value`
};

/// One PDU. Fields of the other form (request or trap) are not looked at.
struct snmp_pdu {
  sockaddr_in address;  // peer: destination (address 0: the session's), or source
  int32_t command;      // PDU tag
  long request_id;
  long error_status;
  long error_index;  // 1-based position of the binding in error

  uint64_t* enterprise;  // owned; this and the rest up to `time_stamp`: traps only
  int32_t enterprise_length;
  in_addr_t agent_address;  // network byte order
  long generic_trap;
  long specific_trap;
  unsigned long time_stamp;  // hundredths of a second

  snmp_var* variables;  // owned, in wire order
};

extern const uint64_t default_enterprise[9];  // for a trap without an enterprise
extern const char* const error_string[6];     // texts by error status

/// A new zeroed PDU of `command` with error status and error index -1. Returns
/// null without memory. The caller releases it with snmp_free_pdu.
[[nodiscard]] snmp_pdu* snmp_pdu_create(int32_t command);

/// Releases `pdu` with all it owns. Null is allowed.
void snmp_free_pdu(snmp_pdu* pdu);

/// The deleter of unique_pdu.
struct FreePdu {
  /// snmp_free_pdu.
  void operator()(snmp_pdu* pdu) const { snmp_free_pdu(pdu); }
};
/// Owns a PDU.
using unique_pdu = std::unique_ptr<snmp_pdu, FreePdu>;

/// Stores a new zeroed binding in `*link`, the null end of a binding list. Returns
/// it, or null without memory; the list is then as before. It belongs to the list.
[[nodiscard]] snmp_var* snmp_new_var(snmp_var** link);

/// Appends a NULL binding with a copy of `name` (`name_length` sub-identifiers),
/// as a request asks for a variable. Without memory `pdu` stays as it was.
void snmp_add_null_var(snmp_pdu* pdu, const uint64_t* name, int32_t name_length);

/// A copy of `pdu` with everything it owns; null without memory.
[[nodiscard]] snmp_pdu* snmp_clone_pdu(const snmp_pdu* pdu);

/// From a response that blames one of its bindings: a new PDU of `command` with
/// the other bindings, request id 0 and error fields -1. Returns null when `pdu`
/// is not such a response, when no binding would be left, or without memory.
[[nodiscard]] snmp_pdu* snmp_fix_pdu(const snmp_pdu* pdu, int32_t command);

/// The error_string of an error status, "Unknown Error" for any other than 0 to 5.
[[nodiscard]] const char* snmp_errstring(int32_t error_status);
