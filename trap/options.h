// The command line of kivtrap: options, operands and their defaults.
#pragma once

// What a run was asked to do. Every text is the command line's own, or a static
// default; null means "not given".
struct TrapOptions {
  const char* community = nullptr;
  const char* trap = nullptr;      // generic trap type, a decimal number
  const char* specific = nullptr;  // specific trap code, a decimal number
  const char* file = nullptr;      // null: standard input
  const char* host = nullptr;      // the management station
};

extern int Verbose;           // -v: print the parameter line
extern int snmp_dump_uptime;  // -u: print the up-time

/// Reads the command line in the getopt form, or in the positional form when its
/// first word does not begin with '-', and fills in the defaults. Sets Verbose,
/// snmp_dump_uptime and snmp_dump_packet accordingly. Does not return from a usage
/// error.
[[nodiscard]] TrapOptions parse_command_line(int argc, char** argv);

/// Prints the usage text on standard error and ends the process with status 1.
[[noreturn]] void print_usage();
