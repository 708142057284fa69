// A small SNMP agent: answers Get requests for sysUpTime.0, the time since its own start.
//
//   agent PORT
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>

#include "liblocal/startup/vxinit.h"
#include "liblocal/text/vxprint.h"
#include "snmp/asn1.h"
#include "snmp/snmp_api.h"

namespace {

constexpr uint64_t kSysUpTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
constexpr long kNoSuchName = 2;  // error status of RFC 1157

long hundredths() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 100 + now.tv_nsec / 10000000;
}

bool is_uptime(const snmp_var& variable) {
  return std::equal(std::begin(kSysUpTime), std::end(kSysUpTime), variable.name,
                    variable.name + variable.name_length);
}

// The response that refuses the variable at `index`: the request itself, by RFC 1157.
snmp_pdu* refuse(const snmp_pdu& request, long index) {
  snmp_pdu* response = snmp_clone_pdu(&request);
  if (response == nullptr) return nullptr;
  response->command = kSnmpGetResponse;
  response->error_status = kNoSuchName;
  response->error_index = index;
  return response;
}

// Null without memory.
snmp_pdu* answer(const snmp_pdu& request, long uptime) {
  snmp_pdu* response = snmp_pdu_create(kSnmpGetResponse);
  if (response == nullptr) return nullptr;
  response->address = request.address;
  response->request_id = request.request_id;
  response->error_status = 0;
  response->error_index = 0;
  long index = 0;
  for (const snmp_var* each = request.variables; each != nullptr; each = each->next) {
    ++index;
    if (is_uptime(*each) &&
        snmp_add_var(response, kSysUpTime, kSnmpTimeTicks, &uptime, sizeof uptime)) {
      continue;
    }
    snmp_free_pdu(response);
    return refuse(request, index);
  }
  return response;
}

int on_message(int /*operation*/, snmp_session* session, int32_t /*request_id*/, snmp_pdu* pdu,
               void* started) {
  if (pdu->command != kSnmpGetRequest) return 0;
  snmp_pdu* response = answer(*pdu, hundredths() - *static_cast<long*>(started));
  if (response == nullptr || snmp_send(session, response) == 0) {
    vxfprintf(stderr, "agent: a request could not be answered\n");
  }
  snmp_free_pdu(response);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  vx_set_progname(argv[0]);
  _vxinit("agent", argc, argv);
  if (argc != 2) {
    vxfprintf(stderr, "usage: agent PORT\n");
    return 1;
  }
  long started = hundredths();
  snmp_session wanted;
  wanted.local_port = static_cast<uint16_t>(atoi(argv[1]));
  wanted.callback = on_message;
  wanted.callback_arg = &started;
  if (snmp_open(&wanted) == nullptr) return 1;  // the reason is on standard error
  vxprintf("Answering requests on UDP port %d.\n", wanted.local_port);
  fflush(stdout);
  for (;;) {
    vx_fd_set readable;
    VX_FD_ZERO(&readable);
    int count = 0;
    int block = 1;  // it sends no requests, so there is no time-out to wait for
    timeval timeout = {};
    snmp_select_info(&count, &readable, &timeout, &block);
    int ready = vx_select(count, &readable, nullptr, nullptr, nullptr);
    if (ready < 0 && errno != EINTR) return 1;
    if (ready > 0) snmp_read(&readable);
  }
}
