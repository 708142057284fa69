// The example listener as a process: what it prints of a trap.
#include <unistd.h>

#include <csignal>
#include <regex>

#include "tests/lab.h"

namespace {

TEST(Listener, PrintsATrapWholeAndOutlivesSignalsAndRubbish) {
  if (lab::skip_without_ports()) return;
  lab::Command command{{TRAP_LISTENER, "--count", "1"}};
  command.before_input = [](pid_t listener) {
    while (lab::read_file("/proc/net/udp").find(":00A2 ") == std::string::npos) usleep(1000);
    kill(listener, SIGUSR2);
    // Rubbish, a request, and texts that would act on a terminal.
    for (const char* datagram :
         {"30", "3012 020100 0400 A00B 020109 020100 020100 3000",
          "3044 020100 0403 61221B A43A 06072B06010401A73B 40040A010203 020102 0201FF 43024E20"
          "301F 300A 06022B06 04041B5B324A  3009 06022B06 0403616200  3006 06022B06 0500"}) {
      const lab::Command send{{"bash", "-c", "cat >/dev/udp/127.0.0.1/162"}, from_hex(datagram)};
      EXPECT_EQ(lab::run(send).status, 0);
    }
  };
  const lab::Outcome outcome = lab::run(command);
  EXPECT_EQ(outcome.err + std::to_string(outcome.status), "Mangled packet\n0");
  const std::regex varying("(\n)[-0-9]+ [0-9:]+  |(127.0.0.1:)\\d+");
  EXPECT_EQ(std::regex_replace(outcome.out, varying, "$1$2"),
            "Listening for traps on UDP port 162.\n\ntrap from 127.0.0.1:\n"
            "  community   \"a\\\"\\x1B\"\n  enterprise  1.3.6.1.4.1.5051\n  agent       10.1.2.3\n"
            "  generic     linkDown(2)\n  specific    -1\n  up-time     0 days 0:03:20\n"
            "  1.3.6 = OCTET STRING 4 bytes: 1B 5B 32 4A\n"
            "  1.3.6 = OCTET STRING 3 bytes: 61 62 00\n  1.3.6 = NULL\n\n");
}

}  // namespace
