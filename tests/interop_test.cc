// Messages that the engine builds, read by an independent decoder.
#include <arpa/inet.h>

#include <random>
#include <sstream>

#include "snmp/asn1.h"
#include "snmp/snmp.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"
#include "tests/lab.h"
#include "tests/packets.h"

namespace {

constexpr int kMessages = 300;
constexpr int32_t kLengths[] = {0, 1, 100, 126, 127, 128, 129, 180, 200, 254, 255, 256, 257, 1200};

// The decoder's fields in the order of a row. Every occurrence of a field is
// shown, separated by commas.
const char* const kFields[] = {
    "snmp.version",      "snmp.community",     "snmp.data",       "snmp.request_id",
    "snmp.error_status", "snmp.error_index",   "snmp.enterprise", "snmp.agent_addr",
    "snmp.generic_trap", "snmp.specific_trap", "snmp.time_stamp", "snmp.name",
    "snmp.value.int",    "snmp.value.octets",  "snmp.value.oid",  "snmp.value.null",
    "snmp.value.ipv4",   "snmp.value.counter", "snmp.value.g32",  "snmp.value.timeticks",
    "snmp.value.opaque", "_ws.malformed"};

enum Column {
  kVersion,
  kCommunity,
  kData,
  kRequestId,
  kErrorStatus,
  kErrorIndex,
  kEnterprise,
  kAgent,
  kGeneric,
  kSpecific,
  kTimeStamp,
  kName,
  kInt,
  kOctets,
  kOid,
  kNull,
  kIpv4,
  kCounter,
  kGauge,
  kTicks,
  kOpaque,
  kMalformed
};

// What the decoder has to show for one message, built up while the PDU is.
struct Row {
  std::string cells[std::size(kFields)];

  void add(Column column, const std::string& text) {
    cells[column] += (cells[column].empty() ? "" : ",") + text;
  }
  std::string line() const {
    std::string joined;
    for (const std::string& cell : cells) joined += (&cell == cells ? "" : "|") + cell;
    return joined;
  }
};

class Generator {
 public:
  // A message of the given PDU type, as bytes, and the row that belongs to it.
  std::pair<std::string, Row> message(uint8_t command) {
    row_ = {};
    pdu_ = snmp_pdu_create(command);
    std::string community = letters(pick(kLengths) % 128 + 1);
    row_.add(kVersion, "0");
    row_.add(kCommunity, community);
    row_.add(kData, std::to_string(command & 0x1F));
    command == kSnmpTrap ? fill_trap() : fill_request();
    add_bindings();

    snmp_session session{};
    session.community = reinterpret_cast<uint8_t*>(community.data());
    session.community_length = static_cast<int32_t>(community.size());
    uint8_t packet[kSnmpMaxPacket];
    int32_t length = sizeof packet;
    int built = snmp_build_packet(&session, pdu_, packet, &length);
    snmp_free_pdu(pdu_);
    EXPECT_EQ(built, 0);
    return {std::string(reinterpret_cast<char*>(packet), static_cast<size_t>(length)), row_};
  }

 private:
  long number(long low, long high) {
    return std::uniform_int_distribution<long>(low, high)(random_);
  }
  int32_t pick(std::span<const int32_t> choices) {
    return choices[static_cast<size_t>(number(0, std::ssize(choices) - 1))];
  }
  // Small and large numbers are equally likely.
  long any_size(int bits) { return number(0, (1L << number(0, bits)) - 1); }
  std::string letters(int32_t count) {
    std::string text;
    while (std::ssize(text) < count) text += static_cast<char>(number('a', 'z'));
    return text;
  }
  std::vector<uint64_t> object_id(std::string* dotted) {
    std::vector<uint64_t> subids = {1, 3};
    for (long more = number(0, 10); more > 0; --more) {
      subids.push_back(static_cast<uint64_t>(any_size(32)));
    }
    for (uint64_t subid : subids) *dotted += (dotted->empty() ? "" : ".") + std::to_string(subid);
    return subids;
  }

  void fill_request() {
    pdu_->request_id = number(INT32_MIN, INT32_MAX);
    pdu_->error_status = number(0, 5);
    pdu_->error_index = any_size(31);
    row_.add(kRequestId, std::to_string(pdu_->request_id));
    row_.add(kErrorStatus, std::to_string(pdu_->error_status));
    row_.add(kErrorIndex, std::to_string(pdu_->error_index));
  }
  void fill_trap() {
    std::string enterprise;
    std::vector<uint64_t> subids = object_id(&enterprise);
    pdu_->enterprise = copy_of(subids.data(), subids.size());
    pdu_->enterprise_length = static_cast<int32_t>(subids.size());
    pdu_->agent_address = static_cast<in_addr_t>(number(0, UINT32_MAX));
    pdu_->generic_trap = number(0, 6);
    pdu_->specific_trap = any_size(31);
    pdu_->time_stamp = static_cast<unsigned long>(any_size(32));
    row_.add(kEnterprise, enterprise);
    row_.add(kAgent, inet_ntoa({pdu_->agent_address}));
    row_.add(kGeneric, std::to_string(pdu_->generic_trap));
    row_.add(kSpecific, std::to_string(pdu_->specific_trap));
    row_.add(kTimeStamp, std::to_string(pdu_->time_stamp));
  }
  void add_bindings() {
    snmp_var** link = &pdu_->variables;
    for (long more = number(0, 4); more > 0; --more, link = &(*link)->next) {
      std::string name;
      std::vector<uint64_t> subids = object_id(&name);
      snmp_add_null_var(pdu_, subids.data(), static_cast<int32_t>(subids.size()));
      row_.add(kName, name);
      add_value(*link);
    }
  }
  void add_value(snmp_var* var) {
    switch (number(0, 8)) {
      case 0:
        return set_number(var, kAsnInteger, kInt, number(INT32_MIN, INT32_MAX));
      case 1:
        return set_number(var, kSnmpCounter, kCounter, any_size(31));
      case 2:
        return set_number(var, kSnmpGauge, kGauge, any_size(31));
      case 3:
        return set_number(var, kSnmpTimeTicks, kTicks, any_size(31));
      case 4:
        return set_bytes(var, kAsnOctetString, kOctets, letters(pick(kLengths)));
      case 5:
        return set_bytes(var, kSnmpOpaque, kOpaque, letters(pick(kLengths) + 1));
      case 6: {
        std::string dotted;
        std::vector<uint64_t> subids = object_id(&dotted);
        set(var, kAsnObjectId, subids.data(), subids.size());
        return row_.add(kOid, dotted);
      }
      case 7: {
        in_addr address = {static_cast<in_addr_t>(number(0, UINT32_MAX))};
        set(var, kSnmpIpAddress, &address, 1);
        return row_.add(kIpv4, inet_ntoa(address));
      }
      default:
        return row_.add(kNull, "1");
    }
  }
  void set_number(snmp_var* var, uint8_t type, Column column, long value) {
    set(var, type, &value, 1);
    row_.add(column, std::to_string(value));
  }
  void set_bytes(snmp_var* var, uint8_t type, Column column, const std::string& bytes) {
    set(var, type, bytes.data(), bytes.size());
    std::string hex = to_hex(bytes);
    for (char& c : hex) c = static_cast<char>(tolower(c));
    row_.add(column, hex.empty() ? "<MISSING>" : hex);
  }
  template <typename T>
  static void set(snmp_var* var, uint8_t type, const T* values, size_t count) {
    var->type = type;
    var->value = copy_of(values, count);
    var->value_length = static_cast<int32_t>(count * sizeof(T));
  }
  template <typename T>
  static T* copy_of(const T* values, size_t count) {
    void* copy = malloc(count * sizeof(T) + 1);
    return static_cast<T*>(memcpy(copy, values, count * sizeof(T)));
  }

  std::mt19937_64 random_{1157};
  Row row_;
  snmp_pdu* pdu_ = nullptr;
};

using InteropTest = LabTest;

TEST_F(InteropTest, AnIndependentDecoderReadsWhatWentIn) {
  std::string capture = kCaptureHeader;
  std::vector<std::string> wanted;
  Generator generator;
  for (int i = 0; i < kMessages; ++i) {
    auto command = static_cast<uint8_t>(kSnmpGetRequest + i % 5);
    auto [message, row] = generator.message(command);
    append_packet(&capture, message, command == kSnmpTrap ? 162 : 161);
    wanted.push_back(row.line());
  }
  lab::write_file("/run/messages.pcap", capture);

  lab::Command tshark;
  tshark.words = {"tshark", "-r", "/run/messages.pcap", "-T", "fields", "-E", "separator=|"};
  for (const char* field : kFields) tshark.words.insert(tshark.words.end(), {"-e", field});
  tshark.environment = {"HOME=/run"};
  std::istringstream lines(lab::run(tshark).out);
  std::string line;
  for (const std::string& row : wanted) {
    ASSERT_TRUE(std::getline(lines, line));
    ASSERT_EQ(line, row);
  }
}

}  // namespace
