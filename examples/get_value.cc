// Reads sysUpTime.0, the time since an SNMP agent was started.
//
//   get_value HOST [PORT]
#include <cstdlib>
#include <iterator>

#include "liblocal/startup/vxinit.h"
#include "liblocal/text/vxprint.h"
#include "snmp/asn1.h"
#include "snmp/snmp_api.h"
#include "snmp/snmp_client.h"

namespace {

constexpr uint64_t kSysUpTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};

// The response to a Get request for sysUpTime.0, or null after a message.
snmp_pdu* get_uptime(snmp_session* session) {
  snmp_pdu* request = snmp_pdu_create(kSnmpGetRequest);
  if (request == nullptr) return nullptr;
  snmp_add_null_var(request, kSysUpTime, std::size(kSysUpTime));
  snmp_pdu* response = nullptr;
  int status = snmp_synch_response(session, request, &response);  // takes over the request
  if (status == kSnmpSynchTimeout) vxfprintf(stderr, "get_value: no answer\n");
  if (status == kSnmpSynchError) vxfprintf(stderr, "get_value: %s\n", api_errors(snmp_errno + 4));
  return response;
}

int print_uptime(const snmp_pdu& response) {
  if (response.error_status != 0) {
    auto status = static_cast<int32_t>(response.error_status);
    vxfprintf(stderr, "get_value: %s\n", snmp_errstring(status));
    return 1;
  }
  const snmp_var* variable = response.variables;
  if (variable == nullptr || variable->type != kSnmpTimeTicks) {
    vxfprintf(stderr, "get_value: the answer holds no time\n");
    return 1;
  }
  // Without its leading zero byte a value of 2^31 or more was read as a negative number.
  auto hundredths = static_cast<uint32_t>(*static_cast<long*>(variable->value));
  vxprintf("up %u.%02u seconds\n", hundredths / 100, hundredths % 100);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  vx_set_progname(argv[0]);
  _vxinit("get_value", argc, argv);
  if (argc != 2 && argc != 3) {
    vxfprintf(stderr, "usage: get_value HOST [PORT]\n");
    return 1;
  }
  snmp_session wanted;
  wanted.peer_name = argv[1];
  if (argc == 3) wanted.remote_port = static_cast<uint16_t>(atoi(argv[2]));
  snmp_session* session = snmp_open(&wanted);
  if (session == nullptr) return 1;  // the reason is on standard error
  snmp_synch_setup(session);
  snmp_pdu* response = get_uptime(session);
  int status = response != nullptr ? print_uptime(*response) : 1;
  snmp_free_pdu(response);
  snmp_close(session);
  return status;
}
