// The command as a process: arguments, streams, exit status and datagrams; it and the RPC
// engine against a real port mapper.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <regex>

#include "rpc/c_gen.h"
#include "rpc/portmap/pmap.h"
#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

constexpr char kBootRecord[] = "/run/utmp";
constexpr char kUsage[] =
    "[41.22] usage: kivtrap [-c community] [-t trap_type] [-s specific_trap] [-v] "
    "management_station\n";

// The message that is to arrive, in hex. `codes` is the generic and the specific integer.
std::string trap_message(const std::string& text, const std::string& community = "public",
                         const std::string& codes = "020106 020101",
                         const std::string& agent = "C0000201") {
  return to_hex(from_hex("30(020100 04('" + community + "') A4(06072B06010401A73B 40(" + agent +
                         ")" + codes + "430100 30(30(06082B06010201010100 04('" + text + "')))))"));
}

class CommandTest : public MachineTest {
 protected:
  void SetUp() override {
    if (machine::skip_outside()) return;
    std::filesystem::remove(kBootRecord);
    station.emplace(uint16_t{162});
    mappers.emplace();
  }

  static machine::Command kivtrap(std::vector<std::string> words,
                                  std::string input = "disk full\n") {
    words.insert(words.begin(), KIVTRAP);
    return {std::move(words), std::move(input), {"NUMBERED_TEXTS="}};
  }
  // The datagram that arrived, in hex; "" for none.
  std::string arrived() const { return to_hex(station->receive_now().value_or("")); }
  // Runs the command, which sends `datagram` and succeeds, or sends none and fails.
  void expect(const machine::Command& command, const std::string& datagram,
              const std::string& out = "", const std::string& err = "") const {
    SCOPED_TRACE(testing::PrintToString(command.words) + command.input.substr(0, 20));
    const machine::Outcome outcome = machine::run(command);
    EXPECT_EQ(std::tuple(outcome.status, outcome.out, outcome.err),
              std::tuple(datagram.empty() ? 1 : 0, out, err));
    EXPECT_EQ(arrived(), datagram);
    EXPECT_EQ(arrived(), "");
  }

  std::optional<machine::UdpReceiver> station;
  std::optional<machine::EmptyPortMappers> mappers;
};

TEST_F(CommandTest, CommandLines) {
  machine::write_file("/run/message", "from a file\nsecond line\n");
  const std::string sent = trap_message("disk full"), from_file = trap_message("from a file");
  const std::string parameters = "[41.73] community = public\ttrap = 6\tspecific=1\n";
  auto dump = [](const std::string& hex) {
    const std::string bytes = std::regex_replace(hex, std::regex(".."), "$& ");
    return std::regex_replace(bytes, std::regex(".{48}"), "$&\n") + "\n\n";
  };
  auto with_codes = [](const char* codes, const char* community = "public") {
    return trap_message("disk full", community, codes);
  };
  const struct {
    std::vector<std::string> words;
    std::string datagram, out{}, err{};
  } rows[] = {
      {{}, "", "", kUsage},
      {{"manager"}, sent},
      {{"manager", "2", "7", "9"}, with_codes("020102 020107")},
      {{"manager", "-cx", "private", "2", "-c"}, with_codes("020102 020101", "private")},
      {{"manager", "-f", "/run/message", "6"}, from_file},
      {{"manager", "-f"}, sent},
      {{"manager", "-v"}, "", "[41.24] invalid option: -v\n", kUsage},
      {{"-v", "manager"}, sent, parameters},
      {{"-v", "-t3", "-s", "70000", "-c", "a b", "manager"},
       with_codes("020103 0203011170", "a b"),
       "[41.73] community = a b\ttrap = 3\tspecific=70000\n"},
      {{"-f", "/run/message", "-d", "manager"}, from_file, dump(from_file)},
      {{"manager", "-d", "-d"}, sent, dump(sent)},
      {{"-t", "abc", "-s", "-1", "manager"}, with_codes("020100 0201FF")},
      {{"-f", "-", "manager"}, sent},
      {{"-f", "", "manager"}, sent},
      {{"-f", "/no/such", "manager"}, "", "[41.25] file /no/such does not exist\n"},
      {{"-u", "1", "manager"}, sent, "", "[41.26] Up time: 0\n"},
      {{"-z", "manager"}, "", "", kUsage},
      {{"-v"}, "", "", kUsage},
      {{"-v", "a", "b"}, "", "", kUsage},
      {{"-v", "--", "--help"}, "", "", kUsage},
      {{"nowhere"}, "", "[41.27] Couldn't open snmp\n", "[41.23] unknown host: nowhere\n"},
      {{"everybody"}, "", "[41.28] error\n", "sendto: Permission denied\n"},
  };
  for (const auto& row : rows) expect(kivtrap(row.words), row.datagram, row.out, row.err);
}

TEST_F(CommandTest, MessageIsTheFirstLineLessItsLastByte) {
  if (locales_are_missing()) return;
  // At most 1022 bytes are read, and the last one goes: the line end or a real one.
  const std::string line(5000, 'y');
  const struct {
    std::string input, text;
  } rows[] = {
      {"", ""},
      {"\n", ""},
      {"hello", "hell"},
      {"Gr\xC3\xBC\xC3\x9F \xFF\x80 %s%n\n", "Gr\xC3\xBC\xC3\x9F \xFF\x80 %s%n"},
      {"first\n" + line + "\n" + line, "first"},
      {line.substr(0, 1022) + "\nmore\n", line.substr(0, 1021)},
  };
  const TemporaryDirectory place;  // of a locale with another codeset: texts are UTF-8 in any
  const std::string locale = compile_locale(place.path(), "ISO-8859-1");
  for (const auto& row : rows) {
    machine::Command command = kivtrap({"manager"}, row.input);
    command.environment.insert(command.environment.end(),
                               {"LOCPATH=" + place.path(), "LC_ALL=" + locale});
    expect(command, trap_message(row.text));
  }
}

// The up-time is printed, and the trap carries its lower 32 bits.
TEST_F(CommandTest, UpTimeCountsFromTheBootRecord) {
  const struct {
    long seconds;      // since the boot
    const char* sent;  // a pattern of the trap's time stamp
  } rows[] = {
      {0, "43(01..|02....)"},
      {21474837, "430480000[0-9A-F]{3}"},  // above 2^31 hundredths
      {-1000, "4303FE[0-9A-F]{4}"},        // the clock was set back
  };
  utmp records[2] = {};  // other records come before that of the boot
  records[0].ut_type = RUN_LVL;
  records[1].ut_type = BOOT_TIME;
  for (const auto& row : rows) {
    records[1].ut_tv.tv_sec = static_cast<int32_t>(time(nullptr) - row.seconds);
    machine::write_file(kBootRecord, {reinterpret_cast<const char*>(records), sizeof records});
    const machine::Outcome outcome = machine::run(kivtrap({"-u", "x", "manager"}));
    std::smatch printed;
    ASSERT_TRUE(std::regex_match(outcome.err, printed, std::regex(".*Up time: (\\d+)\n")));
    const unsigned long earliest = static_cast<unsigned long>(row.seconds) * 100;
    EXPECT_LT(std::stoul(printed[1]) - earliest, 3000) << row.seconds;
    EXPECT_TRUE(std::regex_search(arrived(), std::regex(std::string("020106020101") + row.sent)));
  }
}

TEST_F(CommandTest, TheAgentAddressIsThatOfTheHostName) {
  const std::string hosts = machine::read_file("/etc/hosts");
  const struct {
    const char *name, *hosts;  // of this host
    const char *agent, *err;
  } rows[] = {
      {"10.9.8.7", "10.9.8.7 numbers\n", "0A090807", ""},
      {"testhost", "10.4.4.4 TESTHOST.example testhost\n", "0A040404", ""},
      {"nowhere", "127.0.0.2 localhost\n", "7F000002", ""},
      {"nowhere", "", "00000000", "[41.23] unknown host: localhost\n"},
  };
  for (const auto& row : rows) {
    machine::set_host_name(row.name);
    machine::write_file("/etc/hosts", std::string("127.0.0.1 loopback\n") + row.hosts);
    expect(kivtrap({"127.0.0.1"}), trap_message("disk full", "public", "020106 020101", row.agent),
           "", row.err);
  }
  machine::write_file("/etc/hosts", hosts);
  machine::set_host_name(machine::kHostName);
}

void wait_until(auto condition) {  // for 10 seconds at most
  for (int tries = 0; tries < 10000 && !condition(); ++tries) usleep(1000);
}

TEST_F(CommandTest, ADebugSignalEndsNoWaitAndLosesNoText) {
  const struct {
    const char *before, *after;  // what is written before and after the signal
    const char* text;
  } rows[] = {
      {"disk ", "full\n", "disk full"},
      {"", "disk full\n", "disk full"},
      {"", "", ""},
  };
  ASSERT_EQ(mkfifo("/run/fifo", 0600), 0);
  for (const auto& row : rows) {
    machine::Command command = kivtrap({"-f", "/run/fifo", "manager"});
    command.before_input = [&row](pid_t program) {
      auto signal_when_it_waits_in = [program](int call) {
        auto waits = [program, begin = std::to_string(call) + " "] {
          return machine::read_file("/proc/" + std::to_string(program) + "/syscall")
              .starts_with(begin);
        };
        wait_until(waits);
        kill(program, SIGUSR2);
        wait_until(waits);
      };
      signal_when_it_waits_in(SYS_openat);
      const int writer = open("/run/fifo", O_RDWR | O_CLOEXEC);
      EXPECT_GE(write(writer, row.before, strlen(row.before)), 0);
      wait_until([writer] {
        int unread = 0;
        return ioctl(writer, FIONREAD, &unread) == 0 && unread == 0;
      });
      signal_when_it_waits_in(SYS_read);
      EXPECT_GE(write(writer, row.after, strlen(row.after)), 0);
      close(writer);
    };
    expect(command, trap_message(row.text));
  }
}

TEST_F(CommandTest, TextIsWrappedWhereTheStationIsRegistered) {
  const struct {
    uint16_t port;  // that the station's own port mapper answers
    const char* environment;
    char between;  // the two words of the text
    size_t calls;  // of the station's own port mapper
  } rows[] = {
      {4711, "KIV_NOTHING=", '\n', 1},  {0, "KIV_NOTHING=", ' ', 1},
      {0, "KIV_WRAP=Yes", '\n', 0},     {4711, "KIV_WRAP=nO", ' ', 0},
      {4711, "KIV_WRAP=yes!", '\n', 1}, {4711, "KIV_WRAP=", '\n', 1},
  };
  mappers.reset();
  const machine::RpcServer standard(111, "127.0.0.1", machine::port_mapper(0));
  // RPC 2, port mapper 2, get port; none credential and verifier; program 100122 version 0 by UDP.
  const std::string asked = from_hex(
      "0000000000000002000186A00000000200000003 00000000000000000000000000000000"
      "0001871A000000000000001100000000");
  const std::string first(38, 'a'), second(20, 'b');
  for (const auto& row : rows) {
    const machine::RpcServer own(7938, "127.0.0.1", machine::port_mapper(row.port));
    machine::Command command = kivtrap({"manager"}, first + " " + second + "\n");
    command.environment.emplace_back(row.environment);
    expect(command, trap_message(first + row.between + second));
    ASSERT_EQ(own.requests().size(), row.calls) << row.environment;
    for (const std::string& request : own.requests()) EXPECT_EQ(request.substr(4), asked);
  }
}

using StationTest = machine::ClientTest;

TEST_F(StationTest, ARealPortMapper) {
  if (machine::skip_outside()) return;
  // The port at which a client of the station's program is made; 0 when it is not.
  auto look_up = [&](const char* transport, unsigned long program, unsigned long version) {
    destroy();
    client_ = __brix_clnt_create("station", program, version, transport);
    return client_ != nullptr ? ntohs(get<sockaddr_in>(CLGET_SERVER_ADDR).sin_port) : 0;
  };
  machine::UdpReceiver manager(162, "127.0.0.2");
  machine::RpcServer own(kOwnMapperPort, "127.0.0.2", machine::port_mapper(0));
  const pid_t mapper = fork();
  if (mapper == 0) _exit(execlp("rpcbind", "rpcbind", "-f", nullptr));
  sockaddr_in server = machine::loopback(kStandardMapperPort);
  const timeval retry = {0, 50000};  // until it has started
  CLIENT* registrar = clntgen_create(&server, kPmapProgram, kPmapVersion, &retry, &socket_, 0, 0);
  ASSERT_NE(registrar, nullptr);
  pmap entry = {100122, 0, IPPROTO_UDP, 4711};
  EXPECT_EQ(registrar->ops->call(registrar, 1, xdr_filter<__brix_xdr_pmap>, &entry,
                                 xdr_filter<__brix_xdr_int>, &result_, machine::kLong),
            RPC_SUCCESS);
  EXPECT_EQ(result_, 1);
  EXPECT_EQ(look_up("udp", 100122, 0), 4711);
  EXPECT_EQ(look_up("tcp", 100122, 0), 0);
  expect_not_created(RPC_PROGNOTREGISTERED, 0);
  EXPECT_EQ(machine::run({{KIVTRAP, "station"}, std::string(38, 'x') + " wrapped\n"}).status, 0);
  EXPECT_TRUE(manager.receive().value_or("").ends_with("x\nwrapped"));
  registrar->ops->destroy(registrar);
  // Look-ups for connections go over connections.
  EXPECT_EQ(look_up(nullptr, kPmapProgram, kPmapVersion), kStandardMapperPort);
  kill(mapper, SIGTERM);
  waitpid(mapper, nullptr, 0);  // its ports are free from here on
}

}  // namespace
