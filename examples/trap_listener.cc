// trap_listener: prints every SNMPv1 trap that arrives on a UDP port.
//
// It opens a session that has a local port and no peer, and runs the engine's loop of
// snmp_select_info, vx_select and snmp_read. What arrives is passed to the session's
// callback.
#include <arpa/inet.h>
#include <getopt.h>
#include <locale.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <time.h>
#include <wchar.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "liblocal/startup/vxinit.h"
#include "snmp/asn1.h"
#include "snmp/snmp.h"
#include "snmp/snmp_api.h"

namespace {

struct Arguments {
  long port = 162;
  long count = 0;  // traps to print before ending; 0: no limit
};

// The community of the message that is being received.
uint8_t community[kSnmpMaxCommunity];
int32_t community_length;

// Messages come from strangers. Only characters that the operator's locale can show are
// printed as they are: escape sequences, broken UTF-8 and invisible characters would act on
// the terminal or hide what is there. Returns the bytes of the character at `at`, or 0 when
// it must not be printed.
size_t shown_bytes(const uint8_t* at, size_t left) {
  wchar_t character = 0;
  mbstate_t state = {};
  size_t bytes = mbrtowc(&character, reinterpret_cast<const char*>(at), left, &state);
  return bytes >= 1 && bytes <= left && wcwidth(character) > 0 ? bytes : 0;
}

bool is_text(const uint8_t* bytes, size_t length) {
  for (size_t i = 0; i < length;) {
    size_t shown = shown_bytes(bytes + i, length - i);
    if (shown == 0 && bytes[i] != '\n' && bytes[i] != '\t') return false;
    i += shown > 0 ? shown : 1;
  }
  return true;
}

void print_quoted(const uint8_t* bytes, size_t length) {
  putchar('"');
  for (size_t i = 0; i < length;) {
    size_t shown = shown_bytes(bytes + i, length - i);
    if (bytes[i] == '"' || bytes[i] == '\\') {
      printf("\\%c", bytes[i]);
    } else if (bytes[i] == '\n') {
      printf("\\n");
    } else if (bytes[i] == '\t') {
      printf("\\t");
    } else if (shown == 0) {
      printf("\\x%02X", bytes[i]);
    } else {
      fwrite(bytes + i, 1, shown, stdout);
    }
    i += shown > 0 ? shown : 1;
  }
  putchar('"');
}

void print_hex(const uint8_t* bytes, size_t length) {
  printf("%zu bytes", length);
  for (size_t i = 0; i < length; ++i) printf("%s%02X", i == 0 ? ": " : " ", bytes[i]);
}

void print_object_id(const uint64_t* subids, size_t count) {
  for (size_t i = 0; i < count; ++i) printf("%s%" PRIu64, i == 0 ? "" : ".", subids[i]);
}

void print_address(const uint8_t* bytes) {
  printf("%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
}

void print_ticks(uint32_t hundredths) {
  uint32_t seconds = hundredths / 100;
  printf("%u days %u:%02u:%02u", seconds / 86400, seconds / 3600 % 24, seconds / 60 % 60,
         seconds % 60);
}

void print_generic_trap(long number) {
  constexpr const char* kNames[] = {
      "coldStart",       "warmStart",         "linkDown", "linkUp", "authenticationFailure",
      "egpNeighborLoss", "enterpriseSpecific"};
  bool known = number >= 0 && number < static_cast<long>(std::size(kNames));
  printf("%s(%ld)", known ? kNames[number] : "unknown", number);
}

long number_of(const snmp_var& var) { return *static_cast<const long*>(var.value); }

// A number with its top bit set is negative in the engine's records, but counters, gauges
// and ticks are unsigned (RFC 1155).
uint32_t as_unsigned(long number) { return static_cast<uint32_t>(number); }

void print_value(const snmp_var& var) {
  const auto* bytes = static_cast<const uint8_t*>(var.value);
  size_t length = static_cast<size_t>(var.value_length);
  switch (var.type) {
    case kAsnInteger:
      printf("INTEGER %ld", number_of(var));
      break;
    case kSnmpCounter:
      printf("Counter %" PRIu32, as_unsigned(number_of(var)));
      break;
    case kSnmpGauge:
      printf("Gauge %" PRIu32, as_unsigned(number_of(var)));
      break;
    case kSnmpTimeTicks:
      printf("TimeTicks %" PRIu32 ", ", as_unsigned(number_of(var)));
      print_ticks(as_unsigned(number_of(var)));
      break;
    case kAsnOctetString:
      printf("OCTET STRING ");
      is_text(bytes, length) ? print_quoted(bytes, length) : print_hex(bytes, length);
      break;
    case kSnmpIpAddress:
      printf("IpAddress ");
      length == 4 ? print_address(bytes) : print_hex(bytes, length);
      break;
    case kSnmpOpaque:
      printf("Opaque ");
      print_hex(bytes, length);
      break;
    case kAsnObjectId:
      printf("OBJECT IDENTIFIER ");
      print_object_id(static_cast<const uint64_t*>(var.value), length / sizeof(uint64_t));
      break;
    case kAsnNull:
      printf("NULL");
      break;
    default:
      printf("value of unknown type 0x%02X", var.type);
  }
}

void print_trap(const snmp_pdu& trap) {
  char when[64];
  time_t now = time(nullptr);
  tm local = {};
  strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", localtime_r(&now, &local));
  uint8_t agent[4];
  memcpy(agent, &trap.agent_address, sizeof agent);

  printf("%s  trap from %s:%d\n", when, inet_ntoa(trap.address.sin_addr),
         ntohs(trap.address.sin_port));
  printf("  community   ");
  print_quoted(community, static_cast<size_t>(community_length));
  printf("\n  enterprise  ");
  print_object_id(trap.enterprise, static_cast<size_t>(trap.enterprise_length));
  printf("\n  agent       ");
  print_address(agent);
  printf("\n  generic     ");
  print_generic_trap(trap.generic_trap);
  printf("\n  specific    %ld", trap.specific_trap);
  printf("\n  up-time     ");
  print_ticks(static_cast<uint32_t>(trap.time_stamp));
  for (const snmp_var* var = trap.variables; var != nullptr; var = var->next) {
    printf("\n  ");
    print_object_id(var->name, static_cast<size_t>(var->name_length));
    printf(" = ");
    print_value(*var);
  }
  printf("\n\n");
}

// The PDU does not carry the community; the engine passes it to this filter just before it
// decodes the PDU. A listener for some communities only would return null for the others,
// which drops the message.
const uint8_t* keep_community(const uint8_t* pdu, int32_t* /*left*/, const uint8_t* bytes,
                              int32_t length) {
  memcpy(community, bytes, static_cast<size_t>(length));
  community_length = length;
  return pdu;
}

// `printed` points to the number of traps so far. Requests that strangers send
// to this port arrive here, too; they get no answer.
int on_message(int /*operation*/, snmp_session* /*session*/, int32_t /*request_id*/, snmp_pdu* pdu,
               void* printed) {
  if (pdu->command != kSnmpTrap) return 0;
  print_trap(*pdu);
  ++*static_cast<long*>(printed);
  return 0;
}

// SIGINT and SIGTERM as a descriptor that becomes readable. They stay blocked
// otherwise, so one that comes between two waits is not lost.
int open_stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

// Returns the exit status.
int listen_for_traps(const Arguments& arguments, int stop_signals) {
  long printed = 0;
  snmp_session wanted = {};
  wanted.retries = kSnmpDefaultRetries;
  wanted.timeout = kSnmpDefaultTimeout;
  wanted.local_port = static_cast<uint16_t>(arguments.port);
  wanted.auth_hook = keep_community;
  wanted.callback = on_message;
  wanted.callback_arg = &printed;
  snmp_session* session = snmp_open(&wanted);
  if (session == nullptr) {
    fprintf(stderr, "trap_listener: cannot listen on UDP port %ld: %s\n", arguments.port,
            api_errors(snmp_errno + 4));
    return 1;
  }
  printf("Listening for traps on UDP port %ld.\n\n", arguments.port);

  int status = 0;
  while (arguments.count == 0 || printed < arguments.count) {
    vx_fd_set readable;
    VX_FD_ZERO(&readable);
    VX_FD_SET(stop_signals, &readable);
    int count = stop_signals + 1;
    // A program that also sends requests waits no longer than `timeout` when
    // `block` comes back as 0, and then calls snmp_timeout.
    timeval timeout = {};
    int block = 1;
    snmp_select_info(&count, &readable, &timeout, &block);
    if (vx_select(count, &readable, nullptr, nullptr, nullptr) < 0) {
      if (errno == EINTR) continue;  // a debug command came by signal
      perror("trap_listener: select");
      status = 1;
      break;
    }
    if (VX_FD_ISSET(stop_signals, &readable)) break;
    snmp_read(&readable);
  }
  snmp_close(session);
  return status;
}

[[noreturn]] void usage(FILE* stream, int status) {
  fprintf(stream,
          "usage: trap_listener [--count N] [PORT]\n"
          "Prints every SNMPv1 trap that arrives on UDP port PORT (162).\n"
          "  --count N  end after N traps\n"
          "  --help     print this text\n"
          "Ends with status 0 on SIGINT and SIGTERM, 1 when it cannot listen.\n");
  exit(status);
}

// A number from 1 to `limit`, or the end of the program.
long parse_number(const char* text, long limit) {
  char* end = nullptr;
  long number = strtol(text, &end, 10);
  if (end == text || *end != '\0' || number < 1 || number > limit) {
    fprintf(stderr, "trap_listener: not a number from 1 to %ld: %s\n", limit, text);
    exit(1);
  }
  return number;
}

Arguments parse_arguments(int argc, char** argv) {
  constexpr option kOptions[] = {
      {"count", required_argument, nullptr, 'c'}, {"help", no_argument, nullptr, 'h'}, {}};
  Arguments arguments;
  for (int option; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    if (option == 'c') {
      arguments.count = parse_number(optarg, 1'000'000'000);
    } else {
      option == 'h' ? usage(stdout, 0) : usage(stderr, 1);
    }
  }
  if (optind < argc) arguments.port = parse_number(argv[optind++], 65535);
  if (optind < argc) usage(stderr, 1);
  return arguments;
}

}  // namespace

int main(int argc, char** argv) {
  vx_set_progname(argv[0]);
  _vxinit("trap_listener", argc, argv);
  setlocale(LC_CTYPE, "");
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // a trap is seen at once, in a pipe too
  Arguments arguments = parse_arguments(argc, argv);

  int stop_signals = open_stop_signals();
  if (stop_signals < 0) {
    perror("trap_listener: signalfd");
    return 1;
  }
  return listen_for_traps(arguments, stop_signals);
}
