// The command as a process: arguments, streams, exit status and datagrams.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utmp.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <regex>

#include "tests/lab.h"
#include "tests/rpc_server.h"

namespace {

namespace fs = std::filesystem;

constexpr char kBootRecord[] = "/run/utmp";
constexpr char kUsage[] =
    "usage: kivtrap [-c community] [-t trap_type] [-s specific_trap] [-v] management_station\n";

std::string item(const char* tag, const std::string& contents) {
  std::string length(1, static_cast<char>(contents.size()));
  if (contents.size() > 127) length = {'\x82', static_cast<char>(contents.size() >> 8), length[0]};
  return from_hex(tag) + length + contents;
}

// The message that is to arrive, in hex. `codes` is the generic and the specific integer.
std::string trap_message(const std::string& text, const std::string& community = "public",
                         const char* codes = "020106 020101", const char* agent = "C0000201") {
  std::string name = from_hex("06082B06010201010100");
  return to_hex(
      item("30", from_hex("020100") + item("04", community) +
                     item("A4", from_hex("06072B06010401A73B") + item("40", from_hex(agent)) +
                                    from_hex(codes) + from_hex("430100") +
                                    item("30", item("30", name + item("04", text))))));
}

class CommandTest : public LabTest {
 protected:
  void SetUp() override {
    if (lab::skip_outside()) return;
    fs::remove(kBootRecord);
    station.emplace(uint16_t{162});
    mappers.emplace();
  }

  static lab::Command kivtrap(std::vector<std::string> words, std::string input = "disk full\n") {
    words.insert(words.begin(), KIVTRAP);
    return {std::move(words), std::move(input)};
  }

  // The datagram that arrived, in hex; "" for none.
  std::string arrived() const { return to_hex(station->receive_now().value_or("")); }

  // Runs the command, which sends `datagram` and succeeds, or sends nothing and fails.
  void expect(const lab::Command& command, const std::string& datagram, const std::string& out = "",
              const std::string& err = "") const {
    SCOPED_TRACE(testing::PrintToString(command.words) + command.input.substr(0, 20));
    const lab::Outcome outcome = lab::run(command);
    EXPECT_EQ(outcome.status, datagram.empty() ? 1 : 0);
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, err);
    EXPECT_EQ(arrived(), datagram);
    EXPECT_EQ(arrived(), "");
  }

  std::optional<lab::UdpReceiver> station;
  std::optional<lab::EmptyPortMappers> mappers;
};

TEST_F(CommandTest, CommandLinesAndFailuresOfTheSystem) {
  lab::write_file("/run/message", "from a file\nsecond line\n");
  const std::string sent = trap_message("disk full"), from_file = trap_message("from a file");
  const std::string parameters = "community = public\ttrap = 6\tspecific=1\n";
  const std::string bytes = std::regex_replace(sent, std::regex(".."), "$& ");
  const std::string dump = std::regex_replace(bytes, std::regex(".{48}"), "$&\n") + "\n\n";
  const char* const no_session = "Couldn't open snmp\n";
  const std::string no_port =  // told for each of the two port mappers
      "kivtrap: Cannot bind socket to connection port in configured port range on system "
      "lab-host.\n";
  const std::string cannot_bind = no_port + no_port + "bind: Address already in use\n";
  auto with_codes = [](const char* codes, const char* community = "public") {
    return trap_message("disk full", community, codes);
  };
  const struct {
    std::vector<std::string> words;
    std::string datagram;
    std::string out{}, err{};
    std::optional<std::pair<int, int>> refused{};
  } cases[] = {
      {{}, "", "", kUsage},
      {{"manager"}, sent},
      {{"manager", "2", "7", "9"}, with_codes("020102 020107")},
      {{"manager", "-cx", "private", "2", "-c"}, with_codes("020102 020101", "private")},
      {{"manager", "-f", "/run/message"}, from_file},
      {{"manager", "-f", ""}, sent},
      {{"manager", "-v"}, "", "invalid option: -v\n", kUsage},
      {{"manager", "-"}, "", "invalid option: -\n", kUsage},
      {{"-v", "manager"}, sent, parameters},
      {{"-v", "-t", "3", "-s", "70000", "-c", "a b", "manager"},
       with_codes("020103 0203011170", "a b"),
       "community = a b\ttrap = 3\tspecific=70000\n"},
      {{"-d", "-d", "manager"}, sent, dump},
      {{"manager", "-d"}, sent, dump},
      {{"-t", "abc", "-s", "-1", "manager"}, with_codes("020100 0201FF")},
      {{"-f", "-", "manager"}, sent},
      {{"-f", "", "manager"}, sent},
      {{"-f", "/run/message", "manager"}, from_file},
      {{"-v", "-f", "/no/such", "manager"}, "", parameters + "file /no/such does not exist\n"},
      {{"-u", "1", "manager"}, sent, "", "Up time: 0\n"},
      {{"-u", "manager"}, "", "", kUsage},
      {{"-z", "manager"}, "", "", kUsage},
      {{"-c"}, "", "", kUsage},
      {{"-v", "a", "b"}, "", "", kUsage},
      {{"-v", "--", "--help"}, "", "", kUsage},
      {{"no-such-host"}, "", no_session, "unknown host: no-such-host\n"},
      {{"manager"}, "", no_session, "socket: Too many open files\n", {{SYS_socket, EMFILE}}},
      {{"manager"}, "", no_session, cannot_bind, {{SYS_bind, EADDRINUSE}}},
      {{"manager"}, "", "error\n", "sendto: Operation not permitted\n", {{SYS_sendto, EPERM}}},
  };
  for (const auto& test : cases) {
    lab::Command command = kivtrap(test.words);
    command.refused = test.refused;
    expect(command, test.datagram, test.out, test.err);
  }
}

TEST_F(CommandTest, MessageIsTheFirstLineLessItsLastByte) {
  // At most 1022 bytes are read, and the last one goes: the line end or a real one.
  const std::string line(5000, 'y');
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"\n", ""},
      {"hello", "hell"},
      {"Gr\xC3\xBC\xC3\x9F \xFF\x80 %s%n\n", "Gr\xC3\xBC\xC3\x9F \xFF\x80 %s%n"},
      {"first\n" + line + "\n" + line, "first"},
      {line.substr(0, 1021) + "\nmore\n", line.substr(0, 1021)},
      {line.substr(0, 1022) + "\nmore\n", line.substr(0, 1021)},
  };
  for (const auto& [input, text] : cases) expect(kivtrap({"manager"}, input), trap_message(text));
}

TEST_F(CommandTest, UpTime) {
  // The second is above 2^31 hundredths; after the third the clock was set back.
  for (long seconds : {0L, 21474837L, -1000L}) {
    SCOPED_TRACE(seconds);
    utmp records[2] = {};  // other records come before that of the boot
    records[0].ut_type = RUN_LVL;
    records[1].ut_type = BOOT_TIME;
    records[1].ut_tv.tv_sec = static_cast<int32_t>(time(nullptr) - seconds);
    lab::write_file(kBootRecord, {reinterpret_cast<const char*>(records), sizeof records});
    const lab::Outcome outcome = lab::run(kivtrap({"-u", "x", "manager"}));
    const std::string hex = arrived();
    std::smatch printed, sent;
    ASSERT_TRUE(std::regex_match(outcome.err, printed, std::regex("Up time: (\\d+)\n")));
    ASSERT_TRUE(std::regex_search(hex, sent, std::regex("020106020101430[1-4](.+?)3017")));
    const std::string sign(8 - sent.str(1).size(), sent.str(1) < "8" ? '0' : 'F');
    const unsigned long earliest = static_cast<unsigned long>(seconds) * 100;
    // Up to a minute more; the message carries the lower 32 bits.
    EXPECT_LT(std::stoul(printed[1]) - earliest, 6000);
    EXPECT_LT(static_cast<uint32_t>(std::stoul(sign + sent.str(1), nullptr, 16) - earliest), 6000);
  }
}

TEST_F(CommandTest, AgentAddress) {
  const std::string hosts = lab::read_file("/etc/hosts");
  const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
      {"10.9.8.7", "10.9.8.7 numbers\n", "0A090807", ""},
      {"lab-host", "10.4.4.4 LAB-HOST.example lab-host\n", "0A040404", ""},
      {"nowhere", "127.0.0.2 localhost\n", "7F000002", ""},
      {"nowhere", "", "00000000", "unknown host: localhost\n"},
  };
  for (const auto& [name, own_hosts, agent, err] : cases) {
    lab::set_host_name(name);
    lab::write_file("/etc/hosts", std::string("127.0.0.1 loopback\n") + own_hosts);
    expect(kivtrap({"127.0.0.1"}), trap_message("disk full", "public", "020106 020101", agent), "",
           err);
  }
  lab::write_file("/etc/hosts", hosts);
  lab::set_host_name(lab::kHostName);
}

TEST_F(CommandTest, ASignalDoesNotCostTheMessage) {
  lab::Command command = kivtrap({"manager"});
  command.before_input = [](pid_t program) {
    const std::string where = "/proc/" + std::to_string(program) + "/syscall";
    while (!lab::read_file(where).starts_with("0 0x0 ")) usleep(1000);  // it reads its input
    kill(program, SIGUSR2);
  };
  expect(command, trap_message("disk full"));
}

TEST_F(CommandTest, TextIsWrappedWhereTheStationIsRegistered) {
  const auto has_it = lab::port_mapper(4711), has_none = lab::port_mapper(0);
  const lab::RpcServer::Script garbage = [](const std::string& request) {
    return std::vector{std::string("no"), lab::reply_to(request, "FFFFFFFF"),
                       lab::reply_to(request, "00000000 00000000")};
  };
  const struct {
    lab::RpcServer::Script own, standard;
    size_t own_calls, standard_calls;
    char between;                         // the two words of the text
    const char* choice = "KIV_NOTHING=";  // of the environment
  } cases[] = {
      {has_it, has_none, 1, 0, '\n'},
      {has_none, has_it, 1, 1, '\n'},
      {has_none, has_none, 1, 1, ' '},
      {garbage, garbage, 1, 1, ' '},
      {has_none, has_none, 0, 0, '\n', "KIV_WRAP=Yes"},
      {has_it, has_none, 0, 0, ' ', "KIV_WRAP=nO"},
      {has_it, has_none, 1, 0, '\n', "KIV_WRAP=yes!"},
      {has_it, has_none, 1, 0, '\n', "KIV_WRAP="},
  };
  mappers.reset();
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::Message() << "case " << &test - cases);
    lab::RpcServer own(7938, "127.0.0.1", test.own), standard(111, "127.0.0.1", test.standard);
    const std::string first(38, 'a'), second(20, 'b');
    lab::Command command = kivtrap({"manager"}, first + " " + second + "\n");
    command.environment = {test.choice};
    expect(command, trap_message(first + test.between + second));
    EXPECT_EQ(own.requests().size(), test.own_calls);
    EXPECT_EQ(standard.requests().size(), test.standard_calls);
    for (const std::string& request : own.requests()) {
      EXPECT_EQ(to_hex(request.substr(4)),
                "0000000000000002000186A00000000200000003"  // RPC 2, port mapper 2, get port
                "00000000000000000000000000000000"          // none credential and verifier
                "0001871A000000000000001100000000");        // program 100122 version 0 over UDP
    }
  }
}

}  // namespace
