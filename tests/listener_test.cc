// The example listener as a process: what it prints of a trap, and how it ends.
#include <unistd.h>

#include <csignal>
#include <regex>

#include "tests/lab.h"

namespace {

using lab::Outcome;

class ListenerTest : public testing::Test {
 protected:
  void SetUp() override { lab::skip_without_ports(); }
};

// A trap with a binding of every type, and texts that would act on a terminal.
constexpr char kTrap[] =
    "308198 020100 0403 61221B A4818D 06072B06010401A73B 40040A010203 020102 0201FF 43024E20"
    "3072 3007 06022B06 0201FE  300A 06022B06 04041B5B324A  3009 06022B06 0403616200"
    "3006 06022B06 0500  3008 06022B06 06022B06  300A 06022B06 4004C0000201"
    "300B 06022B06 410500FFFFFFFF  3007 06022B06 420107  3009 06022B06 43030F4240"
    "3008 06022B06 44020501  3007 06022B06 460100";

constexpr char kPrinted[] =
    "Listening for traps on UDP port 162.\n"
    "\n"
    "WHEN  trap from 127.0.0.1:PORT\n"
    "  community   \"a\\\"\\x1B\"\n"
    "  enterprise  1.3.6.1.4.1.5051\n"
    "  agent       10.1.2.3\n"
    "  generic     linkDown(2)\n"
    "  specific    -1\n"
    "  up-time     0 days 0:03:20\n"
    "  1.3.6 = INTEGER -2\n"
    "  1.3.6 = OCTET STRING 4 bytes: 1B 5B 32 4A\n"
    "  1.3.6 = OCTET STRING 3 bytes: 61 62 00\n"
    "  1.3.6 = NULL\n"
    "  1.3.6 = OBJECT IDENTIFIER 1.3.6\n"
    "  1.3.6 = IpAddress 192.0.2.1\n"
    "  1.3.6 = Counter 4294967295\n"
    "  1.3.6 = Gauge 7\n"
    "  1.3.6 = TimeTicks 1000000, 0 days 2:46:40\n"
    "  1.3.6 = Opaque 2 bytes: 05 01\n"
    "  1.3.6 = value of unknown type 0x46\n"
    "\n";

// Runs the listener with `words`; `action` comes once it listens on port 162.
Outcome listen(std::vector<std::string> words, const std::function<void(pid_t)>& action = {}) {
  words.insert(words.begin(), TRAP_LISTENER);
  lab::Command command;
  command.words = std::move(words);
  if (action) {
    command.before_input = [&](pid_t listener) {
      while (lab::read_file("/proc/net/udp").find(":00A2 ") == std::string::npos) usleep(1000);
      action(listener);
    };
  }
  return lab::run(command);
}

void send_to_listener(const std::string& datagram) {
  lab::Command command;
  command.words = {"bash", "-c", "cat >/dev/udp/127.0.0.1/162"};
  command.input = datagram;
  EXPECT_EQ(lab::run(command).status, 0);
}

TEST_F(ListenerTest, PrintsATrapWholeAndOutlivesSignalsAndRubbish) {
  Outcome outcome = listen({"--count", "1"}, [](pid_t listener) {
    for (int i = 0; i < 20; ++i) {
      kill(listener, SIGUSR2);
      usleep(1000);
    }
    send_to_listener("rubbish");
    send_to_listener(from_hex("3012 020100 0400 A00B 020109 020100 020100 3000"));  // a request
    send_to_listener(from_hex(kTrap));
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "Mangled packet\nbad type returned (46)\n");
  std::string printed =
      std::regex_replace(outcome.out, std::regex("\n[-0-9]+ [0-9:]+  "), "\nWHEN  ");
  EXPECT_EQ(std::regex_replace(printed, std::regex("127.0.0.1:\\d+"), "127.0.0.1:PORT"), kPrinted);
}

TEST_F(ListenerTest, EndsOnRequest) {
  EXPECT_EQ(listen({}, [](pid_t listener) { kill(listener, SIGTERM); }).status, 0);
}

TEST_F(ListenerTest, SaysWhyItCannotListen) {
  lab::UdpReceiver taken(162);
  Outcome outcome = listen({});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "bind: Address already in use\n"
            "trap_listener: cannot listen on UDP port 162: Invalid local port\n");
  EXPECT_EQ(listen({"65536"}).err, "trap_listener: not a number from 1 to 65535: 65536\n");
}

}  // namespace
