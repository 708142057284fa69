// Sends a line of text as an SNMPv1 trap.
//
//   send_trap HOST PORT TEXT
#include <cstdlib>
#include <cstring>

#include "liblocal/startup/vxinit.h"
#include "liblocal/text/vxprint.h"
#include "snmp/asn1.h"
#include "snmp/snmp_api.h"

namespace {

constexpr uint64_t kSysDescr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
constexpr long kEnterpriseSpecific = 6;

// A trap with `text` as the value of its one variable, or null without memory.
snmp_pdu* make_trap(const char* text) {
  snmp_pdu* trap = snmp_pdu_create(kSnmpTrap);
  if (trap == nullptr) return nullptr;
  trap->generic_trap = kEnterpriseSpecific;
  trap->specific_trap = 1;
  auto length = static_cast<int32_t>(strlen(text));
  if (snmp_add_var(trap, kSysDescr, kAsnOctetString, text, length)) return trap;
  snmp_free_pdu(trap);
  return nullptr;
}

bool send_trap(const char* host, uint16_t port, snmp_pdu* trap) {
  snmp_session wanted;  // a new record asks for every default, such as community "public"
  wanted.peer_name = const_cast<char*>(host);
  wanted.remote_port = port;
  snmp_session* session = snmp_open(&wanted);
  if (session == nullptr) return false;
  bool sent = snmp_send(session, trap) != 0;
  snmp_close(session);
  return sent;
}

}  // namespace

int main(int argc, char** argv) {
  vx_set_progname(argv[0]);
  _vxinit("send_trap", argc, argv);
  if (argc != 4) {
    vxfprintf(stderr, "usage: send_trap HOST PORT TEXT\n");
    return 1;
  }
  snmp_pdu* trap = make_trap(argv[3]);
  bool sent = trap != nullptr && send_trap(argv[1], static_cast<uint16_t>(atoi(argv[2])), trap);
  if (!sent) vxfprintf(stderr, "send_trap: %s\n", api_errors(snmp_errno + 4));
  snmp_free_pdu(trap);
  return sent ? 0 : 1;
}
