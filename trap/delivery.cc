#include "trap/delivery.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#include "liblocal/messages/catgets.h"
#include "liblocal/text/vxprint.h"
#include "snmp/asn1.h"
#include "snmp/snmp_api.h"
#include "snmp/snmp_pdu.h"
#include "trap/uptime.h"

namespace {

constexpr uint16_t kTrapPort = 162;
constexpr uint64_t kEnterprise[] = {1, 3, 6, 1, 4, 1, 5051};
constexpr uint64_t kSysDescr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};  // MIB-II sysDescr.0

struct CloseSession {
  void operator()(snmp_session* session) const { snmp_close(session); }
};
using unique_session = std::unique_ptr<snmp_session, CloseSession>;

unique_session open_session(const TrapOptions& options) {
  snmp_session wanted;
  wanted.community = reinterpret_cast<uint8_t*>(const_cast<char*>(options.community));
  wanted.community_length = static_cast<int32_t>(strlen(options.community));
  wanted.peer_name = const_cast<char*>(options.host);
  wanted.remote_port = kTrapPort;
  unique_session session(snmp_open(&wanted));
  if (session == nullptr) {
    vxprintf("%s", vxcatgets(Catd, kCommandMessageSet, 27, "Couldn't open snmp\n"));
  }
  return session;
}

// 0.0.0.0, after a message, for a name that is unknown.
in_addr_t agent_address(const char* local_host) {
  in_addr address{};
  return snmp_find_host(local_host, &address) ? address.s_addr : 0;
}

// Null without memory.
unique_pdu make_trap(const TrapOptions& options, const char* local_host, const char* message) {
  unique_pdu trap(snmp_pdu_create(kSnmpTrap));
  if (trap == nullptr) return nullptr;
  trap->enterprise = snmp_copy_objid(kEnterprise, std::size(kEnterprise));
  if (trap->enterprise == nullptr) return nullptr;
  trap->enterprise_length = std::size(kEnterprise);
  trap->generic_trap = atoi(options.trap);
  trap->specific_trap = atoi(options.specific);
  trap->time_stamp = boot_uptime();
  trap->agent_address = agent_address(local_host);
  auto length = static_cast<int32_t>(message != nullptr ? strlen(message) : 0);
  if (!snmp_add_var(trap.get(), kSysDescr, kAsnOctetString, message, length)) return nullptr;
  return trap;
}

}  // namespace

int deliver_trap(const TrapOptions& options, const char* local_host, const char* message) {
  unique_session session = open_session(options);
  if (session == nullptr) return 1;
  unique_pdu trap = make_trap(options, local_host, message);
  if (trap == nullptr) return 1;
  if (snmp_send(session.get(), trap.get()) == 0) {
    vxprintf("%s", vxcatgets(Catd, kCommandMessageSet, 28, "error\n"));
    return 1;
  }
  return 0;
}
