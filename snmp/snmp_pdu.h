// PDUs and variable bindings in memory (RFC 1157, section 4.1): the records that the whole
// engine and its callers share.
//
// Everything a record owns comes from malloc and is released with free, so a caller may fill
// records by hand. Thread safe.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <span>

#include "liblocal/base/version.h"

// PDU tags, the values of snmp_pdu::command.
constexpr uint8_t kSnmpGetRequest = 0xA0;
constexpr uint8_t kSnmpGetNextRequest = 0xA1;
constexpr uint8_t kSnmpGetResponse = 0xA2;
constexpr uint8_t kSnmpSetRequest = 0xA3;
constexpr uint8_t kSnmpTrap = 0xA4;

// Value tags of SNMP's own types (RFC 1155); asn1.h has the others.
constexpr uint8_t kSnmpIpAddress = 0x40;
constexpr uint8_t kSnmpCounter = 0x41;
constexpr uint8_t kSnmpGauge = 0x42;
constexpr uint8_t kSnmpTimeTicks = 0x43;
constexpr uint8_t kSnmpOpaque = 0x44;

/// One variable binding.
struct snmp_var {
  snmp_var* next;       //!< next binding of the list, or null
  uint64_t* name;       //!< owned: the variable's object identifier
  int32_t name_length;  //!< sub-identifiers in `name`
  uint8_t type;         //!< tag of the value
  /// Owned: one long for integers, the bytes of strings, the sub-identifiers of object
  /// identifiers; null for NULL and, when received, for an empty string and an unknown type. A
  /// Counter, Gauge or TimeTicks above 2147483647 is negative here when its sender left out the
  /// leading zero byte: a cast to uint32_t gives its number.
  void* value;
  int32_t value_length;  //!< bytes at `value`
};

/// One PDU. Fields of the other form (request or trap) are not looked at.
struct snmp_pdu {
  sockaddr_in address;  //!< destination (address 0: the session's peer), or the sender
  int32_t command;      //!< PDU tag
  long request_id;      //!< requests and responses; 0 is replaced by a new one
  long error_status;    //!< 0 to 5, as snmp_errstring names them
  long error_index;     //!< 1-based position of the binding in error

  uint64_t* enterprise;       //!< owned; this and the rest up to `time_stamp`: traps only
  int32_t enterprise_length;  //!< sub-identifiers in `enterprise`
  in_addr_t agent_address;    //!< network byte order
  long generic_trap;          //!< 0 (coldStart) to 6 (enterpriseSpecific)
  long specific_trap;         //!< the enterprise's code
  unsigned long time_stamp;   //!< hundredths of a second

  snmp_var* variables;  //!< owned, in wire order
};

extern const uint64_t default_enterprise[9];  //!< for a trap without an enterprise
extern const char* const error_string[6];     //!< texts by error status

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

/// Appends a NULL binding with a copy of `name` (`name_length` sub-identifiers), as a request
/// asks for a variable. Without memory `pdu` stays as it was.
void snmp_add_null_var(snmp_pdu* pdu, const uint64_t* name, int32_t name_length);

/// Appends a binding of any type with copies of `name` and of the `value_length` bytes at
/// `value`, which are as snmp_var says: one long for integers, bytes for strings, uint64_t
/// sub-identifiers for object identifiers, none (null, 0) for NULL. Returns false without
/// memory; `pdu` then stays as it was. `type` is not checked before the PDU is sent.
[[nodiscard]] bool snmp_add_var(snmp_pdu* pdu, std::span<const uint64_t> name, uint8_t type,
                                const void* value, int32_t value_length);

/// A copy of `count` sub-identifiers, as the fields of a PDU own them; null without memory.
/// The caller releases it with free, or gives it to a PDU.
[[nodiscard]] uint64_t* snmp_copy_objid(const uint64_t* subids, int32_t count);

/// A copy of `pdu` with everything it owns; null without memory.
[[nodiscard]] snmp_pdu* snmp_clone_pdu(const snmp_pdu* pdu);

/// From a response that blames one of its bindings: a new PDU of `command` with
/// the other bindings, request id 0 and error fields -1. Returns null when `pdu`
/// is not such a response, when no binding would be left, or without memory.
[[nodiscard]] snmp_pdu* snmp_fix_pdu(const snmp_pdu* pdu, int32_t command);

/// The error_string of an error status, "Unknown Error" for any other than 0 to 5.
[[nodiscard]] const char* snmp_errstring(int32_t error_status);
