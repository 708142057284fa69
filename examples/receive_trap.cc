// Waits for one SNMPv1 trap and prints the texts in it.
//
//   receive_trap PORT
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "liblocal/startup/vxinit.h"
#include "liblocal/text/vxprint.h"
#include "snmp/asn1.h"
#include "snmp/snmp_api.h"

namespace {

// The text comes from a stranger: control characters must not reach the terminal.
void print_text(const snmp_var& variable) {
  const auto* bytes = static_cast<const uint8_t*>(variable.value);
  for (int32_t i = 0; i < variable.value_length; ++i) putchar(isprint(bytes[i]) ? bytes[i] : '.');
  putchar('\n');
}

int on_message(int /*operation*/, snmp_session* /*session*/, int32_t /*request_id*/, snmp_pdu* pdu,
               void* received) {
  if (pdu->command != kSnmpTrap) return 0;
  for (const snmp_var* each = pdu->variables; each != nullptr; each = each->next) {
    if (each->type == kAsnOctetString) print_text(*each);
  }
  *static_cast<bool*>(received) = true;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  vx_set_progname(argv[0]);
  _vxinit("receive_trap", argc, argv);
  if (argc != 2) {
    vxfprintf(stderr, "usage: receive_trap PORT\n");
    return 1;
  }
  bool received = false;
  snmp_session wanted;
  wanted.local_port = static_cast<uint16_t>(atoi(argv[1]));
  wanted.callback = on_message;
  wanted.callback_arg = &received;
  snmp_session* session = snmp_open(&wanted);
  if (session == nullptr) {
    vxfprintf(stderr, "receive_trap: %s\n", api_errors(snmp_errno + 4));
    return 1;
  }
  while (!received) {
    vx_fd_set readable;
    VX_FD_ZERO(&readable);
    int count = 0;
    int block = 1;  // nothing is pending here, so there is no time-out to wait for
    timeval timeout = {};
    snmp_select_info(&count, &readable, &timeout, &block);
    int ready = vx_select(count, &readable, nullptr, nullptr, nullptr);
    if (ready < 0 && errno != EINTR) break;
    if (ready > 0) snmp_read(&readable);
  }
  snmp_close(session);
  return received ? 0 : 1;
}
