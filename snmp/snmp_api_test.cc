#include "snmp/snmp_api.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <ctime>
#include <filesystem>

#include "snmp/snmp.h"
#include "snmp/snmp_client.h"
#include "tests/failing_calls.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/printed.h"

namespace {

// A message without community and bindings; the PDU's tag and the request id in hex.
std::string message(const std::string& tag, const std::string& id = "07") {
  return from_hex("3012 020100 0400" + tag + "0B 0201" + id + "020100 020100 3000");
}

snmp_pdu* make_pdu(int32_t command, long id, long error_status = -1, long error_index = -1) {
  snmp_pdu* pdu = snmp_pdu_create(command);
  pdu->request_id = id;
  pdu->error_status = error_status;
  pdu->error_index = error_index;
  return pdu;
}

long open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class SessionTest : public testing::Test {
 protected:
  void SetUp() override {
    agent.emplace(uint16_t{0});
    wanted.peer_name = const_cast<char*>("127.0.0.1");
    wanted.remote_port = agent->port();
    wanted.retries = -1;
    wanted.timeout = -1;
    wanted.callback = call;
    wanted.callback_arg = this;
    descriptors = open_descriptors();
    Reqid = 41;
  }
  void TearDown() override {
    while (Sessions != nullptr) snmp_close(Sessions->session);
    EXPECT_EQ(open_descriptors(), descriptors) << "a socket was left open";
  }
  static int call(int operation, snmp_session* session, int32_t id, snmp_pdu* pdu, void* test) {
    auto* self = static_cast<SessionTest*>(test);
    self->seen += std::to_string(operation) + ":" + std::to_string(id) + " ";
    EXPECT_EQ(pdu->address.sin_port, htons(self->agent->port()));
    if (self->action) self->action(session);
    EXPECT_EQ(pdu->request_id, id);  // the PDU is there until the callback ends
    return self->result;
  }
  // Opens a session with a request that waits.
  snmp_session* open_and_ask() {
    snmp_session* session = snmp_open(&wanted);
    EXPECT_EQ(snmp_send(session, make_pdu(kSnmpGetRequest, 7)), 7);
    EXPECT_EQ(agent->receive(),
              from_hex("3018 020100 04067075626C6963 A00B 020107 020100 020100 3000"));
    return session;
  }
  // Sends `bytes` from the agent to the session that was opened last.
  void answer(const std::string& bytes) {
    sockaddr_in to{};
    socklen_t size = sizeof to;
    getsockname(Sessions->state->socket, reinterpret_cast<sockaddr*>(&to), &size);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(agent->socket(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), size);
  }
  static void read_all() {
    vx_fd_set readable{};
    for (session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
      VX_FD_SET(entry->state->socket, &readable);
    }
    snmp_read(&readable);
  }
  // Lets the newest request of the newest session have no time left.
  static void expire() {
    Sessions->session->retries = 1;
    Sessions->state->requests->expires_at = {};
  }
  // The status of a synchronous request, which has a response when that is 0 and else none.
  static int synchronous(snmp_session* session, int32_t command, long id) {
    snmp_pdu* pdu = make_pdu(command, id);
    snmp_pdu* response = pdu;  // anything
    const int status = snmp_synch_response(session, pdu, &response);
    EXPECT_EQ(response != nullptr && response->request_id == id, status == 0);
    snmp_free_pdu(response);
    return status;
  }

  std::optional<lab::UdpReceiver> agent;
  snmp_session wanted{};
  long descriptors = 0;
  std::string seen;  // operation and request id of every call
  int result = 1;    // of the callback
  std::function<void(snmp_session*)> action;
};

TEST_F(SessionTest, DefaultsAndOwnCopies) {
  if (lab::skip_outside()) return;
  char peer[] = "manager";
  wanted.peer_name = peer;
  wanted.remote_port = 0;
  for (auto [services, port] : {std::pair{"snmp 16100/tcp\nsnmp 10161/udp\n", 10161}, {"", 161}}) {
    lab::write_file("/etc/services", services);
    ASSERT_NE(snmp_open(&wanted), nullptr);
    EXPECT_EQ(ntohs(Sessions->state->peer_address.sin_port), port);
    EXPECT_EQ(Sessions->state->peer_address.sin_family, AF_INET);
  }
  snmp_session* session = Sessions->session;
  peer[0] = '?';
  EXPECT_STREQ(session->peer_name, "manager");
  EXPECT_EQ(std::string(reinterpret_cast<char*>(session->community), 6), "public");
  EXPECT_EQ(std::tuple(session->community_length, session->retries, session->timeout),
            std::tuple(6, 4, 1000000L));
  EXPECT_EQ(Reqid, 41);  // seeded once
  EXPECT_EQ(snmp_close(session), 1);
  EXPECT_EQ(std::pair(snmp_close(session), snmp_errno), std::pair(0, -4));

  Reqid = 0;
  uint8_t community[200] = {'a', 0, 'b'};
  wanted.peer_name = nullptr;
  wanted.community = community;
  wanted.community_length = sizeof community;
  wanted.retries = 0;
  wanted.timeout = 0;
  session = snmp_open(&wanted);
  EXPECT_EQ(session, Sessions->session);
  EXPECT_NE(Reqid, 0);
  community[2] = 'c';
  EXPECT_EQ(std::string(reinterpret_cast<char*>(session->community), 4), std::string("a\0b", 4));
  EXPECT_EQ(session->community_length, 200);
  EXPECT_EQ(std::pair(session->retries, session->timeout), std::pair(0, 0L));
}

TEST_F(SessionTest, FailuresToOpen) {
  if (lab::skip_outside()) return;  // a name is looked up
  auto expect_refused = [this](const char* told, int error) {
    EXPECT_EQ(printed(0, [this] { EXPECT_EQ(snmp_open(&wanted), nullptr); }), told);
    EXPECT_EQ(snmp_errno, error);
    EXPECT_EQ(Sessions, nullptr);
  };
  wanted.peer_name = const_cast<char*>("no-such-host");
  expect_refused("unknown host: no-such-host\n", -3);
  wanted.peer_name = nullptr;
  wanted.local_port = agent->port();
  expect_refused("bind: Address already in use\n", -2);
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  rlimit none = {3, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_EQ(snmp_open(&wanted), nullptr);
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_EQ(snmp_errno, -1);
}

TEST_F(SessionTest, SendsWithWhatWasMissing) {
  const struct {
    int32_t command;
    long id, status, index;
    int32_t result;
    bool is_remembered;
    const char* pdu;
  } cases[] = {
      {0xA0, 0, -1, -1, 42, true, "A00B 02012A 020100 020100 3000"},
      {0xA1, 7, 2, 3, 7, true, "A10B 020107 020102 020103 3000"},
      {0xA3, -5, -2, -3, -5, true, "A30B 0201FB 0201FE 0201FD 3000"},
      {0xA2, 0, -1, 1, 43, false, "A20B 02012B 020100 020101 3000"},
      {0xA0, 1L << 32, 0, 0, 0, true, "A00B 020100 020100 020100 3000"},  // no 0 of the caller's
      {0xA4, 9, 0, 0, 1, false, "A41B 06082B06010401030101 400400000000 020100 020100 430100 3000"},
  };
  snmp_session* session = snmp_open(&wanted);
  for (const auto& row : cases) {
    snmp_pdu* pdu = make_pdu(row.command, row.id, row.status, row.index);
    for (int twice = 0; twice < (row.is_remembered ? 1 : 2); ++twice) {
      EXPECT_EQ(snmp_send(session, pdu), row.result);
      const std::string sent = agent->receive().value_or("").substr(13);
      EXPECT_EQ(to_hex(sent), to_hex(from_hex(row.pdu)));
    }
    const request_record* newest = Sessions->state->requests;
    EXPECT_EQ(newest != nullptr && newest->pdu == pdu, row.is_remembered);
    if (!row.is_remembered) snmp_free_pdu(pdu);
  }
  // No id of ours looks like a failure, and a PDU's own address and enterprise hold.
  Reqid = (1L << 32) - 1;
  snmp_pdu* pdu = make_pdu(kSnmpTrap, 0);
  lab::UdpReceiver other(0);
  pdu->address.sin_family = AF_INET;
  pdu->address.sin_port = htons(other.port());
  pdu->address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  pdu->enterprise = static_cast<uint64_t*>(calloc(2, sizeof *pdu->enterprise));
  pdu->enterprise_length = 2;
  EXPECT_EQ(snmp_send(session, pdu), 1);
  EXPECT_NE(other.receive().value_or("").find(from_hex("06010040")), std::string::npos);
  snmp_free_pdu(pdu);
  EXPECT_EQ(snmp_send(session, make_pdu(kSnmpGetRequest, 0)), 1);
}

TEST_F(SessionTest, FailuresToSend) {
  if (lab::skip_outside()) return;  // another network is sent to
  snmp_session* session = open_and_ask();
  request_record* request = Sessions->state->requests;
  snmp_pdu* pdu = make_pdu(kSnmpGetRequest, 7);
  // What is sent first is told and not remembered; a repetition counts all the same.
  auto expect_refused = [&](snmp_session* by, int error, const std::string& told) {
    EXPECT_EQ(printed(0, [&] { EXPECT_EQ(snmp_send(by, pdu), 0); }), told);
    EXPECT_EQ(snmp_errno, error);
    EXPECT_EQ(Sessions->state->requests, by->peer_name != nullptr ? request : nullptr);
  };
  snmp_session stranger = wanted;
  expect_refused(&stranger, -4, "");
  pdu->address = request->pdu->address;
  pdu->address.sin_addr.s_addr = request->pdu->address.sin_addr.s_addr = inet_addr("192.0.2.77");
  expect_refused(session, -1, "sendto: Network is unreachable\n");
  request->expires_at = {};
  EXPECT_EQ(printed(0, snmp_timeout), "sendto: Network is unreachable\n");
  pdu->enterprise_length = request->pdu->enterprise_length = 65;
  pdu->command = request->pdu->command = kSnmpTrap;  // of an enterprise that is too long
  expect_refused(session, -1, "Error building packet\n");
  request->expires_at = {};
  EXPECT_EQ(printed(0, snmp_timeout), "Error building packet\n");
  EXPECT_EQ(request->retries, 3);
  EXPECT_EQ(agent->receive_now(), std::nullopt);
  wanted.peer_name = nullptr;
  pdu->address = {};
  expect_refused(snmp_open(&wanted), -3, "No remote IP address specified\n");
  snmp_free_pdu(pdu);
}

TEST_F(SessionTest, RepeatsWithDoubledTimeOutsThenReports) {
  open_and_ask();
  request_record* request = Sessions->state->requests;
  snmp_timeout();  // its time is not up yet
  EXPECT_EQ(agent->receive_now(), std::nullopt);
  for (int sends : {2, 3, 4}) {
    request->expires_at = request->sent_at = {};
    snmp_timeout();
    EXPECT_TRUE(agent->receive_now().has_value());
    EXPECT_EQ(std::pair(request->retries, request->timeout),
              std::pair(sends, 1000000L << (sends - 1)));
    EXPECT_GT(request->sent_at.tv_sec, 0);
    timeval wait{};
    timersub(&request->expires_at, &request->sent_at, &wait);
    EXPECT_EQ(wait.tv_sec * 1000000 + wait.tv_usec, request->timeout);
  }
  request->timeout = LONG_MAX / 2 + 1;  // does not overflow
  Sessions->session->retries = 5;
  request->expires_at = {};
  snmp_timeout();
  EXPECT_EQ(request->timeout, LONG_MAX);
  EXPECT_EQ(seen, "");
  agent->receive();
  // The callback finds the request still there.
  action = [&](snmp_session*) { EXPECT_EQ(Sessions->state->requests, request); };
  request->expires_at = {};
  snmp_timeout();
  EXPECT_EQ(seen, "2:7 ");
  EXPECT_EQ(Sessions->state->requests, nullptr);
  EXPECT_EQ(agent->receive_now(), std::nullopt);
}

TEST_F(SessionTest, ResponsesReachTheirRequest) {
  snmp_session* session = open_and_ask();
  ASSERT_EQ(snmp_send(session, make_pdu(kSnmpSetRequest, 7)), 7);
  const struct {
    std::string message;
    int result;                                    // of the callback
    const char* seen;                              // in this step
    int waiting;                                   // requests that still do
  } steps[] = {{message("A2", "08"), 1, "", 2},    // nobody's
               {message("A2"), 0, "1:7 1:7 ", 2},  // not taken: offered to both
               {message("A2"), 2, "1:7 1:7 ", 2},  // nor is this
               {message("A2"), 1, "1:7 ", 1},      // the newest takes it
               {message("A2"), 1, "1:7 ", 0},     {message("A2"), 1, "", 0},
               {message("A0"), 1, "1:7 ", 0},  // somebody else's request is shown
               {message("A1"), 1, "1:7 ", 0},     {message("A3"), 1, "1:7 ", 0},
               {message("A9"), 1, "", 0}};
  for (const auto& step : steps) {
    seen.clear();
    result = step.result;
    answer(step.message);
    read_all();
    EXPECT_EQ(seen, step.seen) << to_hex(step.message);
    int waiting = 0;
    for (request_record* r = Sessions->state->requests; r != nullptr; r = r->next) ++waiting;
    EXPECT_EQ(waiting, step.waiting);
  }
}

TEST_F(SessionTest, OneRoundReadsEverySessionUpToAMangledPacket) {
  for (auto packets : {std::vector{message("A0")}, {"rubbish", message("A4"), message("A0")}, {}}) {
    ASSERT_NE(snmp_open(&wanted), nullptr);
    for (const std::string& packet : packets) answer(packet);
  }
  // Newest first; that nothing can be received ends no round.
  const std::string failed = "recvfrom: Resource temporarily unavailable\n";
  EXPECT_EQ(printed(0, read_all), failed + "Mangled packet\n");
  EXPECT_EQ(printed(0, read_all), failed + "Mangled packet\n");
  EXPECT_EQ(seen, "");
  EXPECT_EQ(printed(0, read_all), failed);
  EXPECT_EQ(seen, "1:7 1:7 ");
}

TEST_F(SessionTest, DumpsWhatIsSentRepeatedAndReceived) {
  const std::string dump =
      "30 18 02 01 00 04 06 70 75 62 6C 69 63 A0 0B 02 \n01 07 02 01 00 02 01 00 30 00 \n\n";
  testing::internal::CaptureStdout();
  snmp_dump_packet = 1;
  snmp_session* session = open_and_ask();
  Sessions->state->requests->expires_at = {};
  snmp_timeout();
  answer(agent->receive().value_or(""));
  read_all();
  snmp_dump_packet = 0;
  EXPECT_EQ(snmp_send(session, make_pdu(kSnmpGetRequest, 7)), 7);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            dump + dump + "recieved 26 bytes from 127.0.0.1:\n" + dump);
}

TEST_F(SessionTest, ACallbackMayOpenAndClose) {
  snmp_session* sessions[3];
  const struct {
    std::function<void()> action;  // of the first call, for sessions[2]
    int calls;                     // of that round
  } rows[] = {
      {[&] { snmp_close(sessions[2]); }, 3},
      {[&] { snmp_close(sessions[1]); }, 2},
      {[&] { snmp_close(sessions[2]), snmp_close(sessions[1]); }, 2},
      {[&] { snmp_close(sessions[0]), snmp_close(sessions[1]); }, 1},
      {[&] {
         FailingMalloc failing(3);  // when the new session is already among the others
         EXPECT_EQ(snmp_open(&wanted), nullptr);
       },
       3},
      {[&] {  // a new session gets what the old one had, and is none of this round
         snmp_close(sessions[2]);
         open_and_ask();
         answer(message("A2"));
       },
       3},
  };
  for (bool times_out : {false, true}) {
    for (const auto& row : rows) {
      for (snmp_session*& session : sessions) {
        session = open_and_ask();
        expire();
        answer(message("A2"));
      }
      int calls = 0;
      action = [&](snmp_session*) {
        if (++calls == 1) row.action();
      };
      times_out ? snmp_timeout() : read_all();
      EXPECT_EQ(calls, row.calls) << &row - rows;
      for (snmp_session* session : sessions) snmp_close(session);
    }
    while (Sessions != nullptr) snmp_close(Sessions->session);
  }
}

// What comes while a callback runs is read inside it, but never offered to the request
// that it runs for.
TEST_F(SessionTest, ACallbackMayReadAndWait) {
  snmp_session* other = snmp_open(&wanted);
  snmp_synch_setup(other);
  const std::function<void(snmp_session*)> actions[] = {
      [](snmp_session*) { read_all(); }, [](snmp_session*) { snmp_timeout(); },
      [&](snmp_session*) { EXPECT_EQ(synchronous(other, kSnmpGetRequest, 8), 0); }};
  for (bool times_out : {false, true}) {
    for (const auto& each : actions) {
      answer(message("A2", "08"));
      snmp_session* session = open_and_ask();
      expire();
      answer(message("A2"));
      answer(message("A2"));  // a peer that answers twice
      seen.clear();
      action = each;
      times_out ? snmp_timeout() : read_all();
      EXPECT_EQ(seen, times_out ? "2:7 " : "1:7 ");
      EXPECT_EQ(Sessions->state->requests, nullptr);
      snmp_close(session);
      action = nullptr;
      read_all();
      while (agent->receive_now().has_value()) continue;
    }
  }
}

TEST_F(SessionTest, CallsInsideCallsHaveABottom) {
  snmp_session* session = snmp_open(&wanted);
  for (int i = 0; i < 40; ++i) answer(message("A0"));
  int depth = 0;
  action = [&](snmp_session*) {
    if (++depth < 16) return read_all();
    read_all();
    snmp_timeout();
    EXPECT_EQ(synchronous(session, kSnmpGetRequest, 8), 1);
    EXPECT_EQ(snmp_errno, -1);
    EXPECT_EQ(agent->receive_now(), std::nullopt);
  };
  read_all();
  EXPECT_EQ(depth, 16);
}

// Every one that is done with leaves its list in the same walk.
TEST_F(SessionTest, ManyTimeOutsTakeOneWalk) {
  ASSERT_NE(snmp_open(&wanted), nullptr);
  Sessions->session->retries = 0;
  int calls = 0;
  action = [&](snmp_session*) { ++calls; };
  for (int i = 0; i < 80000; ++i) {
    auto* request = static_cast<request_record*>(calloc(1, sizeof(request_record)));
    request->pdu = make_pdu(kSnmpGetRequest, 7);
    request->pdu->address.sin_port = htons(agent->port());
    request->expires_at.tv_sec = i % 2 == 0 ? 0 : LONG_MAX;
    request->next = std::exchange(Sessions->state->requests, request);
  }
  const clock_t before = clock();
  snmp_timeout();
  EXPECT_LT(clock() - before, 10 * CLOCKS_PER_SEC);  // not a minute
  EXPECT_EQ(calls, 40000);
}

TEST_F(SessionTest, SelectInfo) {
  vx_fd_set readable{};
  int count = 0, block = 1;
  timeval timeout = {5, 0};
  snmp_session* session = snmp_open(&wanted);
  ASSERT_NE(snmp_open(&wanted), nullptr);
  EXPECT_EQ(snmp_select_info(&count, &readable, &timeout, &block), 2);
  EXPECT_EQ(count, std::max(Sessions->state->socket, Sessions->next->state->socket) + 1);
  EXPECT_TRUE(VX_FD_ISSET(Sessions->state->socket, &readable));
  EXPECT_EQ(std::pair(timeout.tv_sec, block), std::pair(5L, 1));

  ASSERT_EQ(snmp_send(session, make_pdu(kSnmpGetRequest, 7)), 7);
  ASSERT_EQ(snmp_send(session, make_pdu(kSnmpGetRequest, 8)), 8);
  request_record* newest = Sessions->next->state->requests;
  EXPECT_EQ(newest->request_id, 8);
  timeval now{};
  gettimeofday(&now, nullptr);
  const struct {
    long newest, oldest;  // seconds to go
    timeval given;
    int block;
    long least, most;  // of the wait's seconds
    int blocks;
  } rows[] = {{100, 200, {5, 0}, 0, 5, 5, 0},
              {100, 200, {150, 0}, 0, 90, 100, 0},
              {200, 100, {5, 0}, 1, 90, 100, 0},
              {-1, 100, {0, 0}, 2, 0, 0, 2},
              {100, -1, {5, 0}, 0, 0, 0, 0}};
  for (const auto& row : rows) {
    newest->expires_at = newest->next->expires_at = now;
    newest->expires_at.tv_sec += row.newest;
    newest->next->expires_at.tv_sec += row.oldest;
    timeout = row.given;
    block = row.block;
    EXPECT_EQ(snmp_select_info(&count, &readable, &timeout, &block), 2);
    EXPECT_GE(timeout.tv_sec, row.least);
    EXPECT_LE(timeout.tv_sec, row.most);
    EXPECT_EQ(block, row.blocks);
  }
  // A descriptor that no set can name is left out, and counted as a session.
  const int named = std::exchange(Sessions->state->socket, kVxFdSetSize);
  count = 0;
  EXPECT_EQ(snmp_select_info(&count, &readable, &timeout, &block), 2);
  EXPECT_EQ(count, Sessions->next->state->socket + 1);
  Sessions->state->socket = named;
}

TEST_F(SessionTest, Synchronous) {
  wanted.retries = 1;
  const struct {
    int32_t command;
    long timeout;                       // microseconds
    std::vector<std::string> received;  // before the request is sent
    int refused;                        // error of the first waits
    int status;
    const char* told;
  } rows[] = {
      {0xA0, -1, {message("A2", "08"), message("A2")}, 0, 0, ""},
      {0xA3, -1, {message("A2")}, EINTR, 0, ""},
      {0xA0, -1, {message("A2")}, EBADF, 1, "select: Bad file descriptor\n"},
      {0xA1, -1, {message("A1"), message("A2")}, 0, 1, ""},  // the id, but no response
      {0xA0, 1000, {}, 0, 2, ""},
      {0xA2, -1, {}, 0, 1, ""},  // nothing answers these
      {0xA4, -1, {}, 0, 1, ""},
  };
  for (const auto& row : rows) {
    wanted.timeout = row.timeout;
    snmp_session* session = snmp_open(&wanted);
    EXPECT_EQ(snmp_synch_setup(session), &snmp_synch_state);
    for (const std::string& packet : row.received) answer(packet);
    failing_calls::refuse(failing_calls::waits, row.refused, row.refused == 0 ? 0 : 2);
    EXPECT_EQ(printed(0, [&] { EXPECT_EQ(synchronous(session, row.command, 7), row.status); }),
              row.told);
    failing_calls::refuse(failing_calls::waits, 0, 0);
    EXPECT_EQ(std::pair(snmp_synch_state.request_id, snmp_synch_state.waiting),
              std::pair(row.command == 0xA4 ? 1 : 7, 0));
    // What comes after the end of the wait is taken, and nobody's.
    snmp_synch_state.response = nullptr;
    answer(message("A2"));
    answer(message("A2"));
    read_all();
    read_all();
    EXPECT_EQ(Sessions->state->requests, nullptr);
    EXPECT_EQ(snmp_synch_state.response, nullptr);
    snmp_close(session);
  }
  snmp_session stranger = wanted;
  EXPECT_EQ(synchronous(&stranger, kSnmpGetRequest, 7), 1);
  // What was not answered is not kept.
  snmp_session* session = snmp_open(&wanted);
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(synchronous(i % 2 == 0 ? &stranger : session, kSnmpTrap, 7), 1);
  }
  EXPECT_LT(mallinfo2().uordblks, before + 50000);
}

TEST_F(SessionTest, AWaitInterruptedByAnother) {
  snmp_session* session = snmp_open(&wanted);
  snmp_synch_setup(session);
  answer(message("A2", "08"));
  answer(message("A2", "07"));
  ASSERT_NE(snmp_open(&wanted), nullptr);
  answer(message("A0"));
  action = [&](snmp_session*) { EXPECT_EQ(synchronous(session, kSnmpGetRequest, 8), 0); };
  EXPECT_EQ(synchronous(session, kSnmpGetRequest, 7), 0);
  EXPECT_EQ(snmp_synch_state.request_id, 7);
  // And one that has nothing to wait for any more.
  answer(message("A0"));
  action = [&](snmp_session*) { snmp_close(session); };
  EXPECT_EQ(synchronous(session, kSnmpGetRequest, 7), 1);
  EXPECT_EQ(seen, "1:7 1:7 ");
}

// From the first to the last allocation: no leak, no crash, and nothing remembered of
// what failed.
TEST_F(SessionTest, EveryAllocationMayFail) {
  const std::string bytes = from_hex(
      "302C 020100 04067075626C6963 A41F 06022B06 4004C0000201 020106 020101 430100 300A"
      "3008 06022B06 06022B06");
  const std::vector<uint8_t> packet(bytes.begin(), bytes.end());
  bool failed = true;
  for (int granted = 0; failed; ++granted) {
    unique_pdu pdu(snmp_pdu_create(kSnmpGetRequest)), received(snmp_pdu_create(0)), copy;
    {
      const uint64_t name[] = {1, 3, 6};
      FailingMalloc failing(granted);
      snmp_session* session = snmp_open(&wanted);
      EXPECT_TRUE(session != nullptr || (Sessions == nullptr && snmp_errno == -1));
      snmp_add_null_var(pdu.get(), name, 3);
      const bool sent = session != nullptr && snmp_send(session, pdu.get()) != 0;
      EXPECT_EQ(sent, session != nullptr && Sessions->state->requests != nullptr);
      if (sent) static_cast<void>(pdu.release());
      const SnmpParse parsed = snmp_parse_packet(&wanted, received.get(), packet);
      EXPECT_EQ(parsed == SnmpParse::kDone, !failing.failed());
      copy.reset(snmp_clone_pdu(received.get()));
      failed = failing.failed();
      EXPECT_EQ(copy == nullptr, failed);
    }
    if (Sessions != nullptr) snmp_close(Sessions->session);
  }
}

TEST_F(SessionTest, TextsOfCodes) {
  const char* const texts[] = {"Unknown session", "Unknown host", "Invalid local port",
                               "Unknown Error"};
  for (int i = 0; i < 4; ++i) EXPECT_STREQ(api_errors(i), texts[i]);
  EXPECT_STREQ(api_errors(-1), "Unknown Error");
  EXPECT_STREQ(api_errstring(-3), "Unknown Error");
}

}  // namespace
