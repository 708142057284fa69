#include "trap/delivery.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "liblocal/base/c_memory.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/text/vxprint.h"
#include "snmp/asn1.h"
#include "snmp/snmp_api.h"
#include "snmp/snmp_pdu.h"
#include "trap/message_set.h"
#include "trap/uptime.h"

namespace {

constexpr uint16_t kTrapPort = 162;
constexpr uint64_t kEnterprise[] = {1, 3, 6, 1, 4, 1, 5051};
constexpr uint64_t kSysDescr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};  // MIB-II sysDescr.0

struct CloseSession {
  void operator()(snmp_session* session) const { snmp_close(session); }
};
using unique_session = std::unique_ptr<snmp_session, CloseSession>;

// The command line's and the caller's texts stay theirs, so the PDU is released
// piece by piece and not with snmp_free_pdu.
struct Trap {
  c_unique_ptr<snmp_pdu> pdu;
  c_unique_ptr<uint64_t> enterprise;
  c_unique_ptr<snmp_var> binding;
  c_unique_ptr<uint64_t> name;
};

unique_session open_session(const TrapOptions& options) {
  snmp_session session{};
  session.community = reinterpret_cast<uint8_t*>(const_cast<char*>(options.community));
  session.community_length = static_cast<int32_t>(strlen(options.community));
  session.retries = kSnmpDefaultRetries;
  session.timeout = kSnmpDefaultTimeout;
  session.peer_name = const_cast<char*>(options.host);
  session.remote_port = kTrapPort;
  unique_session opened(snmp_open(&session));
  if (opened == nullptr) {
    vxprintf("%s", vxcatgets(Catd, kMessageSet, 27, "Couldn't open snmp\n"));
  }
  return opened;
}

template <size_t kCount>
c_unique_ptr<uint64_t> copy_objid(const uint64_t (&subids)[kCount]) {
  c_unique_ptr<uint64_t> copy(static_cast<uint64_t*>(malloc(sizeof subids)));
  if (copy != nullptr) memcpy(copy.get(), subids, sizeof subids);
  return copy;
}

// 0.0.0.0, after a message, for a name that is unknown.
in_addr_t agent_address(const char* local_host) {
  in_addr_t address = inet_addr(local_host);
  if (address != INADDR_NONE) return address;
  const hostent* host = vx_ts_gethostbyname(local_host);
  if (host == nullptr) {
    vxfprintf(stderr, vxcatgets(Catd, kMessageSet, 23, "unknown host: %s\n"), local_host);
    return 0;
  }
  memcpy(&address, host->h_addr_list[0], sizeof address);
  return address;
}

// False without memory.
bool fill_header(Trap* trap, const TrapOptions& options, const char* local_host) {
  trap->pdu.reset(snmp_pdu_create(kSnmpTrap));
  trap->enterprise = copy_objid(kEnterprise);
  if (trap->pdu == nullptr || trap->enterprise == nullptr) return false;
  snmp_pdu* pdu = trap->pdu.get();
  pdu->enterprise = trap->enterprise.get();
  pdu->enterprise_length = std::size(kEnterprise);
  pdu->generic_trap = atoi(options.trap);
  pdu->specific_trap = atoi(options.specific);
  pdu->time_stamp = boot_uptime();
  pdu->agent_address = agent_address(local_host);
  return true;
}

// False without memory.
bool fill_binding(Trap* trap, char* message) {
  trap->name = copy_objid(kSysDescr);
  trap->binding.reset(static_cast<snmp_var*>(calloc(1, sizeof(snmp_var))));
  if (trap->name == nullptr || trap->binding == nullptr) return false;
  snmp_var* binding = trap->binding.get();
  binding->name = trap->name.get();
  binding->name_length = std::size(kSysDescr);
  binding->type = kAsnOctetString;
  binding->value = message;
  binding->value_length = message != nullptr ? static_cast<int32_t>(strlen(message)) : 0;
  trap->pdu->variables = binding;
  return true;
}

}  // namespace

int deliver_trap(const TrapOptions& options, const char* local_host, char* message) {
  unique_session session = open_session(options);
  if (session == nullptr) return 1;
  Trap trap;
  if (!fill_header(&trap, options, local_host) || !fill_binding(&trap, message)) return 1;
  if (snmp_send(session.get(), trap.pdu.get()) == 0) {
    vxprintf("%s", vxcatgets(Catd, kMessageSet, 28, "error\n"));
    return 1;
  }
  return 0;
}
