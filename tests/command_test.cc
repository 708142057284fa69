// The command as a process: arguments, streams, exit status and datagrams.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <regex>

#include "tests/lab.h"
#include "tests/rpc_server.h"

namespace {

namespace fs = std::filesystem;
using lab::Outcome;

constexpr char kUsage[] =
    "usage: kivtrap [-c community] [-t trap_type] [-s specific_trap] [-v] management_station\n";

std::string item(const char* tag, const std::string& contents) {
  return from_hex(tag) + static_cast<char>(contents.size()) + contents;
}

// The message that is to arrive, for fewer than 128 bytes a field. `codes` is the
// generic and the specific integer in hex.
std::string trap_message(const std::string& text, const std::string& community = "public",
                         const char* codes = "020106 020101", const char* agent = "C0000201") {
  std::string name = from_hex("06082B06010201010100");
  return item("30", from_hex("020100") + item("04", community) +
                        item("A4", from_hex("06072B06010401A73B") + item("40", from_hex(agent)) +
                                       from_hex(codes) + from_hex("430100") +
                                       item("30", item("30", name + item("04", text)))));
}

class CommandTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    fs::remove(lab::kBootRecord);
    lab::set_host_name(lab::kHostName);
    station.emplace(uint16_t{162});
    mappers.emplace();
  }

  static lab::Command kivtrap(std::vector<std::string> words, std::string input = "disk full\n") {
    words.insert(words.begin(), KIVTRAP);
    lab::Command command;
    command.words = std::move(words);
    command.input = std::move(input);
    return command;
  }

  // The datagram that arrived, in hex; "nothing" for none.
  std::string arrived() {
    auto datagram = station->receive_now();
    return datagram ? to_hex(*datagram) : "nothing";
  }

  std::optional<lab::UdpReceiver> station;
  std::optional<lab::EmptyPortMappers> mappers;
};

TEST_F(CommandTest, CommandLine) {
  lab::write_file("/run/message", "from a file\nsecond line\n");
  const std::string sent = trap_message("disk full"), from_file = trap_message("from a file");
  const std::string parameters = "community = public\ttrap = 6\tspecific=1\n";
  auto with_codes = [](const char* codes, const char* community = "public") {
    return trap_message("disk full", community, codes);
  };
  const struct {
    std::vector<std::string> words;
    std::string datagram;  // none: a failure
    std::string out{}, err{};
  } cases[] = {
      {{}, "", "", kUsage},
      {{"manager"}, sent},
      {{"manager", "2", "7", "9"}, with_codes("020102 020107")},
      {{"manager", "-c", "private", "2"}, with_codes("020102 020101", "private")},
      {{"manager", "-cx", "private", "-c"}, trap_message("disk full", "private")},
      {{"manager", "-f", "/run/message"}, from_file},
      {{"manager", "-v"}, "", "invalid option: -v\n", kUsage},
      {{"manager", "-"}, "", "invalid option: -\n", kUsage},
      {{"manager", "-f", ""}, sent},
      {{"-f", "", "manager"}, sent},
      {{"-v", "manager"}, sent, parameters},
      {{"-v", "-t", "3", "-s", "70000", "-c", "a b", "manager"},
       with_codes("020103 0203011170", "a b"),
       "community = a b\ttrap = 3\tspecific=70000\n"},
      {{"-t", "abc", "-s", "-1", "manager"}, with_codes("020100 0201FF")},
      {{"-f", "-", "manager"}, sent},
      {{"-f", "/run/message", "manager"}, from_file},
      {{"-v", "-f", "/no/such", "manager"}, "", parameters + "file /no/such does not exist\n"},
      {{"-u", "1", "manager"}, sent, "", "Up time: 0\n"},
      {{"-u", "manager"}, "", "", kUsage},
      {{"-z", "manager"}, "", "", kUsage},
      {{"-c"}, "", "", kUsage},
      {{"-v", "a", "b"}, "", "", kUsage},
      {{"-v", "--", "--help"}, "", "", kUsage},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.words));
    Outcome outcome = lab::run(kivtrap(test.words));
    EXPECT_EQ(outcome.status, test.datagram.empty() ? 1 : 0);
    EXPECT_EQ(outcome.out, test.out);
    EXPECT_EQ(outcome.err, test.err);
    EXPECT_EQ(arrived(), test.datagram.empty() ? "nothing" : to_hex(test.datagram));
    EXPECT_EQ(arrived(), "nothing");
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
      {line.substr(0, 1020) + "\nmore\n", line.substr(0, 1020)},
      {line.substr(0, 1021) + "\nmore\n", line.substr(0, 1021)},
      {line.substr(0, 1022) + "\nmore\n", line.substr(0, 1021)},
  };
  for (const auto& [input, text] : cases) {
    SCOPED_TRACE(testing::Message() << input.substr(0, 20) << input.size());
    EXPECT_EQ(lab::run(kivtrap({"manager"}, input)).status, 0);
    std::string length(1, static_cast<char>(text.size()));
    if (text.size() > 127) length = {'\x82', static_cast<char>(text.size() >> 8), length[0]};
    EXPECT_TRUE(station->receive_now().value_or("").ends_with("\x04" + length + text));
  }
}

TEST_F(CommandTest, UpTime) {
  // The second is above 2^31 hundredths; after the third the clock was set back.
  for (long seconds : {0L, 21474837L, -1000L}) {
    SCOPED_TRACE(seconds);
    lab::set_boot_time(time(nullptr) - seconds);
    const Outcome outcome = lab::run(kivtrap({"-u", "x", "manager"}));
    const std::string hex = arrived();
    std::smatch printed, sent;
    ASSERT_TRUE(std::regex_match(outcome.err, printed, std::regex("Up time: (\\d+)\n")));
    ASSERT_TRUE(std::regex_search(hex, sent, std::regex("020106020101430[1-4](.+?)3017")));
    const std::string sign(8 - sent[1].length(), sent.str(1) < "8" ? '0' : 'F');
    const unsigned long earliest = static_cast<unsigned long>(seconds) * 100;
    // Up to a minute more; the message carries the lower 32 bits.
    EXPECT_LT(std::stoul(printed[1]) - earliest, 6000);
    EXPECT_LT(static_cast<uint32_t>(std::stoul(sign + sent.str(1), nullptr, 16) - earliest), 6000);
  }
}

TEST_F(CommandTest, PacketDump) {
  Outcome outcome = lab::run(kivtrap({"-d", "-d", "manager"}));
  const std::string datagram = arrived();
  const std::string bytes = std::regex_replace(datagram, std::regex(".."), "$& ");
  EXPECT_EQ(outcome.out, std::regex_replace(bytes, std::regex(".{48}"), "$&\n") + "\n\n");
  EXPECT_EQ(datagram, to_hex(trap_message("disk full")));
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
    Outcome outcome = lab::run(kivtrap({"127.0.0.1"}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, err);
    EXPECT_EQ(arrived(), to_hex(trap_message("disk full", "public", "020106 020101", agent)));
  }
  lab::write_file("/etc/hosts", hosts);
}

// Until the program waits for its input.
void wait_until_blocked(pid_t program) {
  const std::string where = "/proc/" + std::to_string(program) + "/syscall";
  while (!lab::read_file(where).starts_with("0 0x0 ")) usleep(1000);
}

// The thread sanitizer's runtime keeps a signal back until the program calls
// something that it intercepts; a wait for input is nothing of that kind.
#if defined(__has_feature)
constexpr bool kSignalsComeLate = __has_feature(thread_sanitizer);
#else
constexpr bool kSignalsComeLate = false;
#endif

TEST_F(CommandTest, DebugLevelOfARunningProcess) {
  fs::create_directories("/kiv/tmp");
  pid_t process = 0;
  lab::Command command = kivtrap({"manager"});
  command.before_input = [&](pid_t program) {
    process = program;
    wait_until_blocked(program);
    lab::write_file("/kiv/tmp/vxdbg.tmp", "Debug = 3\n");
    kill(program, SIGUSR2);
    while (!kSignalsComeLate && fs::exists("/kiv/tmp/vxdbg.tmp")) usleep(1000);
    wait_until_blocked(program);
  };
  Outcome outcome = lab::run(command);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_FALSE(fs::exists("/kiv/tmp/vxdbg.tmp"));
  EXPECT_EQ(outcome.err, "kivtrap: Changing Debug level of process (id " + std::to_string(process) +
                             ") from 0 to 3\n");
  // The signal does not cost the message.
  EXPECT_EQ(arrived(), to_hex(trap_message("disk full")));
}

// The call that a port mapper gets, less the transaction id.
const std::string kGetPort = from_hex(
    "00000000 00000002 000186A0 00000002 00000003"  // call, RPC 2, port mapper 2, get port
    "00000000 00000000 00000000 00000000"           // none credential and verifier
    "0001871A 00000000 00000011 00000000");         // program 100122 version 0 over UDP

void expect_calls(const lab::RpcServer& mapper, size_t count) {
  EXPECT_EQ(mapper.requests().size(), count);
  for (const std::string& request : mapper.requests()) EXPECT_EQ(request.substr(4), kGetPort);
}

TEST_F(CommandTest, TextIsWrappedWhereTheStationIsRegistered) {
  const lab::RpcServer::Script garbage = [](const std::string& request) {
    return std::vector{std::string("no"), lab::reply_to(request, "FFFFFFFF"),
                       lab::reply_to(request, "00000000 00000000")};
  };
  const std::string line = std::string(38, 'a') + " " + std::string(20, 'b');
  const std::string wrapped = std::string(38, 'a') + "\n" + std::string(20, 'b');
  const struct {
    const char* title;
    lab::RpcServer::Script own, standard;
    size_t own_calls, standard_calls;
    std::string text;
    const char* choice = nullptr;  // KIV_WRAP
  } cases[] = {
      {"own one knows it", lab::port_mapper(4711), lab::port_mapper(0), 1, 0, wrapped},
      {"standard one knows it", lab::port_mapper(0), lab::port_mapper(1), 1, 1, wrapped},
      {"neither knows it", lab::port_mapper(0), lab::port_mapper(0), 1, 1, line},
      {"both answer garbage", garbage, garbage, 1, 1, line},
      {"chosen", lab::port_mapper(0), lab::port_mapper(0), 0, 0, wrapped, "Yes"},
      {"chosen not to be", lab::port_mapper(4711), lab::port_mapper(0), 0, 0, line, "nO"},
      {"no choice", lab::port_mapper(4711), lab::port_mapper(0), 1, 0, wrapped, "yes!"},
      {"an empty choice", lab::port_mapper(4711), lab::port_mapper(0), 1, 0, wrapped, ""},
  };
  mappers.reset();
  for (const auto& test : cases) {
    SCOPED_TRACE(test.title);
    lab::RpcServer own(7938, "127.0.0.1", test.own);
    lab::RpcServer standard(111, "127.0.0.1", test.standard);
    lab::Command command = kivtrap({"manager"}, line + "\n");
    if (test.choice != nullptr) command.environment = {std::string("KIV_WRAP=") + test.choice};
    Outcome outcome = lab::run(command);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(arrived(), to_hex(trap_message(test.text)));
    expect_calls(own, test.own_calls);
    expect_calls(standard, test.standard_calls);
  }
}

TEST_F(CommandTest, FailuresOfTheSystem) {
  auto no_name = [](const std::string& host) {
    return "kivtrap: Reverse DNS lookup failed for host " + host + ", address " + host + "\n";
  };
  // Told for each of the two port mappers.
  const std::string cannot_bind =
      "kivtrap: Cannot bind socket to connection port in configured port range on system "
      "lab-host.\n";
  const struct {
    std::vector<std::string> words;
    std::optional<std::pair<int, int>> refused;
    const char* out;
    std::string err;
  } cases[] = {
      {{"no-such-host"}, {}, "Couldn't open snmp\n", "unknown host: no-such-host\n"},
      {{"manager"},
       {{SYS_socket, EMFILE}},
       "Couldn't open snmp\n",
       "socket: Too many open files\n"},
      {{"manager"},
       {{SYS_bind, EADDRINUSE}},
       "Couldn't open snmp\n",
       cannot_bind + cannot_bind + "bind: Address already in use\n"},
      {{"manager"}, {{SYS_sendto, EPERM}}, "error\n", "sendto: Operation not permitted\n"},
      {{"192.0.2.77"}, {}, "error\n", no_name("192.0.2.77") + "sendto: Network is unreachable\n"},
      {{"0.0.0.0"}, {}, "error\n", no_name("0.0.0.0") + "No remote IP address specified\n"},
      {{"manager", "-c", std::string(4500, 'c')}, {}, "error\n", "Error building packet\n"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.err);
    lab::Command command = kivtrap(test.words);
    command.refused = test.refused;
    Outcome outcome = lab::run(command);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, test.out);
    EXPECT_EQ(outcome.err, test.err);
    EXPECT_EQ(arrived(), "nothing");
  }
}

}  // namespace
