#include "trap/options.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "liblocal/messages/catgets.h"
#include "liblocal/startup/vxinit.h"
#include "liblocal/text/vxprint.h"
#include "snmp/snmp_api.h"

int Verbose = 0;
int snmp_dump_uptime = 0;

namespace {

constexpr char kDefaultCommunity[] = "public";
constexpr char kDefaultTrap[] = "6";  // enterpriseSpecific
constexpr char kDefaultSpecific[] = "1";

bool is_empty(const char* text) { return text == nullptr || *text == '\0'; }

void use_default(const char** value, const char* default_value) {
  if (is_empty(*value)) *value = default_value;
}

// As the platform's getopt reads it: options may also follow the operand.
TrapOptions parse_with_getopt(int argc, char** argv) {
  TrapOptions options;
  for (int option; (option = getopt(argc, argv, "c:df:s:t:u:v")) != -1;) {
    switch (option) {
      case 'c':
        options.community = optarg;
        break;
      case 'd':
        ++snmp_dump_packet;
        break;
      case 'f':
        options.file = optarg;
        break;
      case 's':
        options.specific = optarg;
        break;
      case 't':
        options.trap = optarg;
        break;
      case 'u':  // its argument has no meaning
        snmp_dump_uptime = 1;
        break;
      case 'v':
        Verbose = 1;
        break;
      default:
        print_usage();
    }
  }
  if (argc - optind != 1 || strcmp(argv[optind], "--help") == 0) print_usage();
  options.host = argv[optind];
  return options;
}

// Host, trap and specific by position; -c, -d and -f among them.
TrapOptions parse_by_position(int argc, char** argv) {
  TrapOptions options;
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] != '-') {
      if (options.host == nullptr) {
        options.host = argv[i];
      } else if (options.trap == nullptr) {
        options.trap = argv[i];
      } else if (options.specific == nullptr) {
        options.specific = argv[i];
      }
      continue;
    }
    switch (argv[i][1]) {
      case 'd':
        ++snmp_dump_packet;
        break;
      case 'f':
        if (i + 1 < argc) options.file = argv[++i];
        break;
      case 'c':
        if (i + 1 < argc) options.community = argv[++i];
        break;
      default:
        vxprintf(vxcatgets(Catd, kCommandMessageSet, 24, "invalid option: -%c\n"), argv[i][1]);
        print_usage();
    }
  }
  return options;
}

}  // namespace

TrapOptions parse_command_line(int argc, char** argv) {
  bool getopt_form = argc > 1 && argv[1][0] == '-';
  TrapOptions options = getopt_form ? parse_with_getopt(argc, argv) : parse_by_position(argc, argv);
  use_default(&options.community, kDefaultCommunity);
  use_default(&options.trap, kDefaultTrap);
  use_default(&options.specific, kDefaultSpecific);
  if (Verbose != 0) {
    vxprintf(vxcatgets(Catd, kCommandMessageSet, 73, "community = %s\ttrap = %s\tspecific=%s\n"),
             options.community, options.trap, options.specific);
  }
  if (is_empty(options.host)) print_usage();
  return options;
}

void print_usage() {
  char name[1024];
  vxfprintf(stderr,
            vxcatgets(Catd, kCommandMessageSet, 22,
                      "usage: %s [-c community] [-t trap_type] [-s specific_trap] [-v] "
                      "management_station\n"),
            vx_get_progname(name, sizeof name));
  exit(1);
}
