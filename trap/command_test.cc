// The command as a process: arguments, streams, exit status and datagrams.
#include <gmock/gmock.h>
#include <unistd.h>
#include <utmp.h>

#include <cstring>
#include <ctime>

#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/rpc_server.h"

using namespace machine;

namespace {

constexpr char kUsage[] =
    "[41.22] usage: kivtrap [-c community] [-t trap_type] [-s specific_trap] [-v] "
    "management_station\n";

// The message that is to arrive. `codes` are the two trap integers, in hex as the agent's address.
std::string trap_message(const std::string& text, const std::string& community = "public",
                         const std::string& codes = "020106 020101",
                         const std::string& agent = "C0000201") {
  const std::string binding = ber(0x30, from_hex("06082B06010201010100") + ber(0x04, text));
  const std::string fields = from_hex("06072B06010401A73B 4004" + agent + codes + "430100");
  return ber(0x30,
             from_hex("020100") + ber(0x04, community) + ber(0xA4, fields + ber(0x30, binding)));
}

class CommandTest : public MachineTest {
 protected:
  void SetUp() override {
    if (skip_outside()) return;
    station.emplace(uint16_t{162});
    mappers.emplace();
  }

  static Command kivtrap(std::vector<std::string> words, std::string input = "disk full\n") {
    words.insert(words.begin(), KIVTRAP);
    return {std::move(words), std::move(input), {"NUMBERED_TEXTS="}};
  }
  // The datagram that arrived, in hex; "" for none.
  std::string arrived() const { return to_hex(station->receive_now()); }
  // Runs the command, which sends `datagram` and succeeds, or sends none and fails.
  void expect(const Command& command, const std::string& datagram, const std::string& out = "",
              const std::string& err = "") const {
    SCOPED_TRACE(testing::PrintToString(command.words) + command.input.substr(0, 20));
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, datagram.empty() ? 1 : 0);
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, err);
    EXPECT_EQ(arrived(), to_hex(datagram));
    EXPECT_EQ(arrived(), "");
  }

  std::optional<UdpReceiver> station;
  std::optional<EmptyPortMappers> mappers;
};

TEST_F(CommandTest, CommandLines) {
  write_file("/run/message", "from a file\nsecond line\n");
  const std::string sent = trap_message("disk full"), from_file = trap_message("from a file");
  const std::string dump =
      "30 3E 02 01 00 04 06 70 75 62 6C 69 63 A4 31 06 \n"
      "07 2B 06 01 04 01 A7 3B 40 04 C0 00 02 01 02 01 \n"
      "06 02 01 01 43 01 00 30 17 30 15 06 08 2B 06 01 \n"
      "02 01 01 01 00 04 09 64 69 73 6B 20 66 75 6C 6C \n\n\n";
  const struct {
    std::vector<std::string> words;
    std::string datagram, out{}, err{};
  } rows[] = {
      {{}, "", "", kUsage},
      {{"manager", "2", "7", "9", "-cx", "private"},
       trap_message("disk full", "private", "020102 020107")},
      {{"manager", "-c", "private", "-c"}, trap_message("disk full", "private")},
      {{"manager", "-f", "/run/message"}, from_file},
      {{"manager", "-f", "/run/message", "6", "-f"}, from_file},
      {{"manager", "-v"}, "", "[41.24] invalid option: -v\n", kUsage},
      {{"-v"}, "", "", kUsage},
      {{"-q", "manager"}, "", "", kUsage},
      {{"-v", "-t3", "-s", "70000", "-c", "a b", "manager"},
       trap_message("disk full", "a b", "020103 0203011170"),
       "[41.73] community = a b\ttrap = 3\tspecific=70000\n"},
      {{"-t", "abc", "-s", "-1", "-c", "", "manager"},
       trap_message("disk full", "public", "020100 0201FF")},
      {{"-f", "/run", "manager"}, trap_message("")},  // a directory cannot be read
      {{"-f", "/no/such", "-d", "manager"}, "", "[41.25] file /no/such does not exist\n"},
      {{"-d", "-u", "1", "manager"}, sent, dump, "[41.26] Up time: 0\n"},
      {{"manager", "-d", "6"}, sent, dump},
      {{"-d", "a", "b"}, "", "", kUsage},
      {{"-d", "--", "--help"}, "", "", kUsage},
      {{"nowhere"}, "", "[41.27] Couldn't open snmp\n", "[41.23] unknown host: nowhere\n"},
      {{"everybody"}, "", "[41.28] error\n", "sendto: Permission denied\n"},
  };
  for (const auto& row : rows) expect(kivtrap(row.words), row.datagram, row.out, row.err);
}

TEST_F(CommandTest, SendsTheFirstLine) {
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
  for (const auto& row : rows) {
    Command command = kivtrap({"manager"}, row.input);
    // In a locale with another codeset: texts are UTF-8 in any.
    command.environment.push_back("LOCPATH=" KIV_LOCALES);
    command.environment.push_back("LC_ALL=POSIX.ISO-8859-15");
    expect(command, trap_message(row.text));
  }
}

// The up-time is printed, and the trap carries its lower 32 bits.
TEST_F(CommandTest, UpTimeCountsFromTheBootRecord) {
  const struct {
    long seconds;      // since the boot
    const char* sent;  // the beginning of the trap's time stamp
  } rows[] = {
      {21474837, "430480000"},  // above 2^31 hundredths
      {-1000, "4303FE"},        // the clock was set back
  };
  utmp records[2] = {};  // other records come before that of the boot
  records[0].ut_type = RUN_LVL;
  records[1].ut_type = BOOT_TIME;
  for (const auto& row : rows) {
    records[1].ut_tv.tv_sec = static_cast<int32_t>(time(nullptr) - row.seconds);
    write_file("/run/utmp", {reinterpret_cast<const char*>(records), sizeof records});
    const std::string err = run(kivtrap({"-u", "x", "manager"})).err;
    const unsigned long printed = std::stoul(err.substr(strlen("[41.26] Up time: ")));
    EXPECT_LT(printed - static_cast<unsigned long>(row.seconds) * 100, 3000);
    EXPECT_THAT(arrived(), testing::HasSubstr(std::string("020106020101") + row.sent));
  }
  unlink("/run/utmp");
}

TEST_F(CommandTest, AHostWithoutANameHasAddressZero) {
  const std::string before = read_file("/etc/hosts");
  write_file("/etc/hosts", "127.0.0.1 loopback\n");
  expect(kivtrap({"127.0.0.1"}), trap_message("disk full", "public", "020106 020101", "00000000"),
         "", "[41.23] unknown host: localhost\n");
  write_file("/etc/hosts", before);
}

TEST_F(CommandTest, TextIsWrappedForARegisteredStation) {
  const struct {
    const char* environment;
    size_t calls;   // of the station's own port mapper
    uint16_t port;  // that it answers
    char between;   // the two words of the text
  } rows[] = {
      {"KIV_NOTHING=", 1, 4711, '\n'},
      {"KIV_NOTHING=", 1, 0, ' '},
      {"KIV_WRAP=Yes", 0, 0, '\n'},
      {"KIV_WRAP=nO", 0, 4711, ' '},
  };
  // Behind its number: procedure 3, for program 100122, version 0, over UDP.
  const std::string call =
      "00000000 00000002 000186A0 00000002 00000003 00000000 00000000 00000000 00000000"
      "0001871A 00000000 00000011 00000000";
  mappers.reset();
  const RpcServer standard(111, "127.0.0.1", port_mapper(0));
  for (const auto& row : rows) {
    const RpcServer own(7938, "127.0.0.1", port_mapper(row.port));
    std::string text = std::string(38, 'a') + " " + std::string(20, 'b');
    Command command = kivtrap({"manager"}, text + "\n");
    command.environment.emplace_back(row.environment);
    text[38] = row.between;
    expect(command, trap_message(text));
    ASSERT_EQ(own.requests().size(), row.calls) << row.environment;
    for (const std::string& request : own.requests()) {
      EXPECT_EQ(request.substr(4), from_hex(call));
    }
  }
}

}  // namespace
