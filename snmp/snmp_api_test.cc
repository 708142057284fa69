#include "snmp/snmp_api.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <climits>
#include <filesystem>
#include <regex>
#include <sstream>

#include "snmp/snmp.h"
#include "snmp/snmp_client.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

const fakes::NumberedTexts numbered;

// A message without community and bindings, by the PDU's tag and the request id in hex.
std::string message(const char* tag, const char* id = "07") {
  return from_hex(std::string("3012 020100 0400") + tag + "0B 0201" + id + "020100 020100 3000");
}

snmp_pdu* make_pdu(int32_t command, long id) {
  snmp_pdu* pdu = snmp_pdu_create(command);
  pdu->request_id = id;
  return pdu;
}

class SessionTest : public testing::Test {
 protected:
  void SetUp() override {
    Reqid = 41;
    memset(&all_readable, 0xFF, sizeof all_readable);
  }
  void TearDown() override {
    close_all();
    EXPECT_EQ(open_descriptors(), descriptors) << "a socket was left open";
  }
  static long open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }
  void close_all() {
    while (Sessions != nullptr) snmp_close(Sessions->session);
    sessions.clear();
    while (agent.receive_now().has_value()) continue;
  }
  static int called(int operation, snmp_session*, int32_t id, snmp_pdu* pdu, void* test) {
    auto* self = static_cast<SessionTest*>(test);
    self->log += std::to_string(operation) + ":" + std::to_string(id) + " ";
    EXPECT_EQ(pdu->address.sin_port, htons(self->agent.port()));
    const int result = self->result;
    ++self->depth;
    self->run(self->in_callback);
    --self->depth;
    EXPECT_EQ(pdu->request_id, id);  // the PDU is there until the callback ends
    return result;
  }
  // Sends from the agent to the session that was opened last.
  void answer(const std::string& bytes) {
    sockaddr_in to{};
    socklen_t size = sizeof to;
    getsockname(Sessions->state->socket, reinterpret_cast<sockaddr*>(&to), &size);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(agent.socket(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), size);
  }
  // Logs the status of a synchronous request; it has a response when that is 0 and else none.
  void ask_and_wait(int32_t command, long id) {
    snmp_pdu *pdu = make_pdu(command, id), *response = pdu;  // anything
    const int status = snmp_synch_response(sessions[0], pdu, &response);
    EXPECT_EQ(response != nullptr && response->request_id == id, status == 0);
    snmp_free_pdu(response);
    log += "=" + std::to_string(status) + " ";
  }
  // Does one step after the other. Those without a session are for the newest.
  void run(const std::string& steps) {
    std::istringstream words(steps);
    for (std::string step; words >> step;) {
      const char argument = step.back();
      request_record* request = Sessions != nullptr ? Sessions->state->requests : nullptr;
      if (step == "open" || step == "sync") sessions.push_back(snmp_open(&wanted));
      if (step == "sync") snmp_synch_setup(sessions.back());
      if (step == "soon") Sessions->session->timeout = Sessions->session->retries = 1;
      if (step == "ask") static_cast<void>(snmp_send(Sessions->session, make_pdu(0xA0, 7)));
      if (step == "sent") log += agent.receive_now().has_value() ? "" : "nothing ";
      if (step == "due") {  // the newest request, for the last time
        request->expires_at = {};
        Sessions->session->retries = request->retries;
      }
      if (step == "read") snmp_read(&all_readable);
      if (step == "time") snmp_timeout();
      if (step == "none") answer("");
      if (step[0] == 'A') answer(message(step.substr(0, 2).c_str(), step.substr(2).c_str()));
      if (step == "intr") fakes::refuse(fakes::waits, EINTR, 2);
      if (step == "badf") fakes::refuse(fakes::waits, EBADF);
      if (step.starts_with("take")) result = argument - '0';  // what callbacks return
      if (step.starts_with("close")) snmp_close(sessions[static_cast<size_t>(argument - '0')]);
      if (step.starts_with("wait")) ask_and_wait(kSnmpGetRequest, argument - '0');
      if (step.starts_with("trap")) ask_and_wait(kSnmpTrap, argument - '0');
      if (step == "left") {
        int left = 0;
        for (; request != nullptr; request = request->next) ++left;
        log += std::to_string(left) + "left ";
      }
    }
  }

  machine::UdpReceiver agent{0};
  const long descriptors = open_descriptors();
  snmp_session wanted = {nullptr,      0, -1,      -1,     const_cast<char*>("127.0.0.1"),
                         agent.port(), 0, nullptr, called, this};  // the defaults, that peer
  std::vector<snmp_session*> sessions;
  vx_fd_set all_readable;
  int result = 1, depth = 0;  // of the callback
  std::string log;            // operation and request id of every call, and what steps tell
  std::string in_callback;    // steps
};

TEST_F(SessionTest, DefaultsAndOwnCopies) {
  if (machine::skip_outside()) return;
  char peer[] = "manager", community[200] = {'a', 0, 'b'};
  // Opens a session and then changes what it was told; what the session has.
  auto opened = [&] {
    const snmp_session* own = snmp_open(&wanted);
    EXPECT_EQ(own, Sessions->session);  // newest first
    peer[0] = community[2] = '?';
    std::ostringstream text;
    text << (own->peer_name != nullptr ? own->peer_name : "none") << ' '
         << ntohs(Sessions->state->peer_address.sin_port) << ' '
         << to_hex({reinterpret_cast<char*>(own->community), 6}) << ' ' << own->community_length
         << ' ' << own->retries << ' ' << own->timeout;
    peer[0] = 'm';
    return text.str();
  };
  wanted.peer_name = peer;
  wanted.remote_port = 0;
  machine::write_file("/etc/services", "snmp 16100/tcp\nsnmp 10161/udp\n");
  EXPECT_EQ(opened(), "manager 10161 7075626C6963 6 4 1000000");
  machine::write_file("/etc/services", "");
  EXPECT_EQ(opened(), "manager 161 7075626C6963 6 4 1000000");
  EXPECT_EQ(Sessions->state->peer_address.sin_family, AF_INET);
  EXPECT_EQ(Reqid, 41);
  snmp_session* session = Sessions->session;
  EXPECT_EQ(snmp_close(session), 1);
  EXPECT_EQ(std::pair(snmp_close(session), snmp_errno), std::pair(0, -4));
  community[2] = 'b';
  wanted = {.retries = 0, .timeout = 0};
  wanted.community = reinterpret_cast<uint8_t*>(community);
  wanted.community_length = sizeof community;
  Reqid = 0;
  EXPECT_EQ(opened(), "none 0 610062000000 200 0 0");
  EXPECT_NE(Reqid, 0);
}

TEST_F(SessionTest, FailuresToOpen) {
  if (machine::skip_outside()) return;  // a name is looked up
  auto told = [&](const char* peer, uint16_t local_port, rlim_t most_descriptors) {
    wanted.peer_name = const_cast<char*>(peer);
    wanted.local_port = local_port;
    const std::string text = printed(0, [&] {
      const DescriptorLimit limit(most_descriptors);
      EXPECT_EQ(snmp_open(&wanted), nullptr);
    });
    EXPECT_EQ(Sessions, nullptr);
    return text + std::to_string(snmp_errno);
  };
  EXPECT_EQ(told("no-such-host", 0, 1000), "[41.23] unknown host: no-such-host\n-3");
  EXPECT_EQ(told(nullptr, agent.port(), 1000), "bind: Address already in use\n-2");
  EXPECT_EQ(told(nullptr, 0, 3), "socket: Too many open files\n-1");
}

TEST_F(SessionTest, SendsWithWhatWasMissing) {
  // Command, id, error status and index; the result, whether it is remembered, the PDU sent.
  const std::tuple<uint8_t, long, long, long, int32_t, bool, const char*> cases[] = {
      {0xA0, 0, -1, -1, 42, true, "A00B 02012A 020100 020100 3000"},
      {0xA1, 7, 2, 3, 7, true, "A10B 020107 020102 020103 3000"},
      {0xA3, -5, -2, -3, -5, true, "A30B 0201FB 0201FE 0201FD 3000"},
      {0xA2, 0, -1, 1, 43, false, "A20B 02012B 020100 020101 3000"},
      {0xA0, 1L << 32, 0, 0, 0, true, "A00B 020100 020100 020100 3000"},  // no 0 of the caller's
      {0xA4, 9, 0, 0, 1, false, "A41B 06082B06010401030101 400400000000 020100 020100 430100 3000"},
  };
  snmp_session* session = snmp_open(&wanted);
  for (const auto& [command, id, status, index, result_wanted, is_remembered, sent] : cases) {
    snmp_pdu* pdu = make_pdu(command, id);
    pdu->error_status = status;
    pdu->error_index = index;
    EXPECT_EQ(snmp_send(session, pdu), result_wanted);
    EXPECT_EQ(to_hex(agent.receive().value_or("").substr(13)), to_hex(from_hex(sent)));
    EXPECT_EQ(Sessions->state->requests->pdu == pdu, is_remembered);
    if (!is_remembered) snmp_free_pdu(pdu);
  }
  Reqid = (1L << 32) - 1;  // no id of ours looks like a failure
  EXPECT_EQ(snmp_send(session, make_pdu(kSnmpGetRequest, 0)), 1);
}

// What cannot be sent is told and not remembered; a repetition counts all the same. A PDU's
// own address and enterprise hold.
TEST_F(SessionTest, FailuresToSend) {
  if (machine::skip_outside()) return;  // an address is out of reach
  wanted.retries = 9;
  run("open ask sent");
  request_record* request = Sessions->state->requests;
  // Of its PDU, sent on another session, and of its repetition.
  auto told = [&](snmp_session* by) {
    std::string text = printed(0, [&] { EXPECT_EQ(snmp_send(by, request->pdu), 0); });
    text += std::to_string(snmp_errno) + "\n";
    request->expires_at = {};
    return text + printed(0, snmp_timeout);
  };
  snmp_session stranger = wanted;
  request->pdu->address.sin_addr.s_addr = inet_addr("192.0.2.77");
  EXPECT_EQ(told(&stranger), "-4\nsendto: Network is unreachable\n");
  EXPECT_EQ(told(sessions[0]),
            "sendto: Network is unreachable\n-1\nsendto: Network is unreachable\n");
  request->pdu->command = kSnmpTrap;  // of an enterprise that is too long
  request->pdu->enterprise_length = 65;
  EXPECT_EQ(told(sessions[0]),
            "[41.65] Error building packet\n-1\n[41.65] Error building packet\n");
  EXPECT_EQ(Sessions->state->requests, request);
  wanted.peer_name = nullptr;
  request->pdu->address = {};
  EXPECT_EQ(told(snmp_open(&wanted)),
            "[41.64] No remote IP address specified\n-3\n[41.65] Error building packet\n");
  EXPECT_EQ(request->retries, 5);
  EXPECT_EQ(agent.receive_now(), std::nullopt);
}

TEST_F(SessionTest, RepeatsWithDoubledTimeOutsThenReports) {
  run("open ask sent time");  // its time is not up yet
  request_record* request = Sessions->state->requests;
  EXPECT_EQ(agent.receive_now(), std::nullopt);
  for (int sends : {2, 3, 4}) {
    if (sends == 4) request->timeout = LONG_MAX / 2 + 1;
    request->expires_at = request->sent_at = {};
    run("time sent");
    EXPECT_EQ(request->retries, sends);
    EXPECT_EQ(request->timeout, sends < 4 ? 500000L << sends : LONG_MAX);
    EXPECT_GT(request->sent_at.tv_sec, 0);
    timeval wait{};
    timersub(&request->expires_at, &request->sent_at, &wait);
    EXPECT_EQ(wait.tv_sec * 1000000 + wait.tv_usec, request->timeout);
  }
  in_callback = "left";  // it is removed afterwards
  request->expires_at = {};
  run("time left");
  EXPECT_EQ(log, "2:7 1left 0left ");
  EXPECT_EQ(agent.receive_now(), std::nullopt);
}

TEST_F(SessionTest, Exchanges) {
  const std::string again = "1:7 1:7 1:7 1:7 ";
  const std::string failed = "recvfrom: Resource temporarily unavailable\n";
  const std::string one = "open ask due A207 ", three = one + one + one;
  const std::string twice = "sync A208 open ask due A207 A207 ";  // a peer that answers twice
  // Steps, those in each callback, the log and what is told.
  const std::string rows[][4] = {
      // A response is offered to the requests with its id until one takes it.
      {"open ask ask A208 read left", "", "2left ", ""},
      {"open ask ask take0 A207 read take2 A207 read left", "", again + "2left ", ""},
      {"open ask ask A207 read left A207 read left A207 read", "", "1:7 1left 1:7 0left ", ""},
      {"open A007 read A107 read A307 read A907 read", "", "1:7 1:7 1:7 ", ""},
      // Newest first. A mangled message ends the round, a receive that fails does not.
      {"open A007 open none A007 open read read", "", "1:7 1:7 ",
       failed + "[41.67] Mangled packet\n" + failed},
      // A callback reads and waits, but nothing more is offered to its own request.
      {twice + "read left", "read", "1:7 0left ", ""},
      {twice + "read left", "time wait8", "1:7 =0 0left ", failed},
      {twice + "time left", "read", "2:7 0left ", ""},
      {twice + "time left", "time wait8", "2:7 =0 0left ", ""},
      // The round goes on with what is open and old, whatever a callback opens and closes.
      {three + "read", "close2", "1:7 1:7 1:7 ", ""},
      {three + "read", "close1", "1:7 1:7 ", ""},
      {"open ask ask take0 A207 read", "close0", "1:7 ", ""},
      {three + "read", "close1 close0", "1:7 ", ""},
      {three + "read", "close2 " + one, "1:7 1:7 1:7 ", ""},
      {three + "time", "close2", "2:7 2:7 2:7 ", ""},
      {three + "time", "close1 close0", "2:7 ", ""},
      // A wait takes its own response, and what comes after its end is nobody's.
      {"sync A208 A207 wait7 A207 read left", "", "=0 0left ", ""},
      {"sync A207 intr wait7 left", "", "=0 0left ", ""},
      {"sync A207 badf wait7 left", "", "=1 1left ", "select: Bad file descriptor\n"},
      {"sync A107 A207 wait7 left read left A207 read", "", "=1 1left 0left ", ""},
      {"sync A207 open A007 wait7", "wait8", "1:7 =1 =0 ", ""},  // one inside another
      {"sync open A007 wait7", "close0", "1:7 =1 ", ""},
      {"sync soon wait7 trap7 close0 wait7", "", "=2 =1 =1 ", ""},
      {"sync soon open A007 open A007 read", "wait0", "1:7 1:7 =1 =2 ", failed + failed},
  };
  for (const auto& [steps, steps_in_callback, wanted_log, told] : rows) {
    auto exchange = [&, &all = steps, &inside = steps_in_callback, &wanted = wanted_log,
                     &text = told] {
      SCOPED_TRACE(all + inside);
      in_callback = inside;
      log.clear();
      result = 1;
      EXPECT_EQ(printed(0, [&] { run(all); }), text);
      EXPECT_EQ(log, wanted);
      EXPECT_EQ(snmp_synch_state.waiting, 0);
      close_all();
    };
    EXPECT_EQ(fakes::pieces_left_by(exchange), 0) << steps;
  }
}

TEST_F(SessionTest, DumpsWhatIsSentRepeatedAndReceived) {
  const std::string dump =
      "30 18 02 01 00 04 06 70 75 62 6C 69 63 A0 0B 02 \n01 07 02 01 00 02 01 00 30 00 \n\n";
  testing::internal::CaptureStdout();
  EXPECT_EQ(std::exchange(snmp_dump_packet, 1), 0);
  run("open ask sent");
  Sessions->state->requests->expires_at = {};
  run("time A007 read");
  snmp_dump_packet = 0;
  run("ask");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            dump + dump + "[41.66] recieved 20 bytes from 127.0.0.1:\n" +
                "30 12 02 01 00 04 00 A0 0B 02 01 07 02 01 00 02 \n01 00 30 00 \n\n");
}

TEST_F(SessionTest, SelectInfo) {
  run("open ask ask open");
  const session_entry* entry = Sessions->next;
  request_record *newest = entry->state->requests, *oldest = newest->next;
  // Seconds that the two requests have (0: it does not wait), the time-out and the block flag
  // as given, and the least and the most seconds and the block flag that come back.
  const long rows[][7] = {{0, 0, 5, 1, 5, 5, 1},          {100, 200, 5, 0, 5, 5, 0},
                          {100, 200, 150, 0, 90, 100, 0}, {200, 100, 5, 1, 90, 100, 0},
                          {0, 100, 150, 2, 90, 100, 0},   {-1, 100, 0, 2, 0, 0, 2},
                          {100, -1, 5, 0, 0, 0, 0}},
             now = time(nullptr);
  // A descriptor that no set can name is left out, and counted as a session.
  const int lower = entry->state->socket, higher = Sessions->state->socket;
  for (const auto& [newest_left, oldest_left, given, flag, least, most, wanted_flag] : rows) {
    newest->expires_at = {now + newest_left, 0};
    oldest->expires_at = {now + oldest_left, 0};
    newest->busy = newest_left == 0;
    oldest->busy = oldest_left == 0;
    for (int socket : {kVxFdSetSize, higher}) {
      Sessions->state->socket = socket;
      vx_fd_set readable{};
      timeval timeout = {given, 0};
      int count = 0, block = static_cast<int>(flag);
      EXPECT_EQ(snmp_select_info(&count, &readable, &timeout, &block), 2);
      EXPECT_EQ(count, 1 + (socket == higher ? higher : lower));
      EXPECT_TRUE(VX_FD_ISSET(lower, &readable));
      EXPECT_EQ(VX_FD_ISSET(higher, &readable), socket == higher);
      EXPECT_TRUE(timeout.tv_sec >= least && timeout.tv_sec <= most) << timeout.tv_sec;
      EXPECT_EQ(block, wanted_flag);
    }
  }
}

// One operation fails of it, without a leak.
TEST_F(SessionTest, EveryAllocationMayFail) {
  const std::string bytes = from_hex(
      "30(020100 0400 A4(06022B06 4004C0000201 020106 020101 430100"
      "30(30(06022B06 06022B06) 30(06022B06 020105) 30(06022B06 040161))))");
  const std::vector<uint8_t> packet(bytes.begin(), bytes.end());
  const uint64_t name[] = {1, 3, 6};
  auto refuse_one = [&](int granted) {
    unique_pdu pdu(snmp_pdu_create(kSnmpGetRequest)), received(snmp_pdu_create(0)), copy;
    const fakes::FailingMalloc failing(granted, 1);
    snmp_errno = 0;
    snmp_session* session = snmp_open(&wanted);
    EXPECT_EQ(session == nullptr, Sessions == nullptr);
    snmp_add_null_var(pdu.get(), name, 3);
    const bool is_named = pdu->variables != nullptr;
    const bool is_sent = session != nullptr && snmp_send(session, pdu.get()) != 0;
    EXPECT_EQ(is_sent, Sessions != nullptr && Sessions->state->requests != nullptr);
    EXPECT_EQ(snmp_errno, is_sent ? 0 : -1);
    if (is_sent) static_cast<void>(pdu.release());
    const bool is_parsed = snmp_parse_packet(&wanted, received.get(), packet) == SnmpParse::kDone;
    copy.reset(snmp_clone_pdu(received.get()));
    EXPECT_EQ(is_named + is_sent + is_parsed + (copy != nullptr), failing.failed() ? 3 : 4);
    close_all();
    return failing.failed();
  };
  EXPECT_EQ(fakes::pieces_left_by([&] {
              for (int granted = 0; refuse_one(granted);) ++granted;
            }),
            0);
}

TEST_F(SessionTest, TextsOfCodesAndErrors) {
  std::string texts = api_errstring(-3);
  for (int i = -1; i < 7; ++i) texts += std::string(" ") + api_errors(i) + ":" + snmp_errstring(i);
  EXPECT_EQ(std::regex_replace(texts, std::regex("\\[41.59\\] Unknown Error"), "-"),
            "- -:Unknown Error [41.68] Unknown session:No Error [41.69] Unknown host:Response "
            "message would have been too large. [41.70] Invalid local port:There is no such "
            "variable name in this MIB. -:The value given has the wrong type or length -:This "
            "variable is read only -:A general failure occured -:Unknown Error");
}

}  // namespace
