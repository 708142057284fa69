// kivtrap: sends one line of text to a management station as an SNMPv1 trap.

#include <cstdio>

#include "liblocal/hosts/localhost.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/startup/vxinit.h"
#include "liblocal/text/vxprint.h"
#include "trap/delivery.h"
#include "trap/message.h"
#include "trap/options.h"
#include "trap/probe.h"
#include "trap/uptime.h"

int main(int argc, char** argv) {
  vx_set_progname(argv[0]);
  _vxinit("kiv", argc, argv);

  TrapOptions options = parse_command_line(argc, argv);
  FILE* source = open_message_source(options.file);
  if (snmp_dump_uptime != 0) {
    vxfprintf(stderr, vxcatgets(Catd, kCommandMessageSet, 26, "Up time: %lu\n"), boot_uptime());
  }
  char local_host[256];
  vx_getlocalhost(local_host, sizeof local_host);

  bool wrap = wants_wrapped_text(options.host);
  c_unique_ptr<char> message = read_message(source, wrap);
  return deliver_trap(options, local_host, message.get());
}
