#include "snmp/snmp_api.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <climits>
#include <filesystem>

#include "snmp/snmp_client.h"
#include "snmp/snmp_rounds.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

using testing::Return;

const fakes::NumberedTexts numbered;

constexpr char kEmptySocket[] = "recvfrom: Resource temporarily unavailable\n";

// A message without community and bindings, of the form of requests.
std::string message(uint8_t command, uint8_t id = 7) {
  std::string bytes = from_hex("3012 020100 0400 000B 020100 020100 020100 3000");
  bytes[7] = static_cast<char>(command);
  bytes[11] = static_cast<char>(id);
  return bytes;
}
const std::string kResponse = message(kSnmpGetResponse);
const std::string kRequest = message(kSnmpGetRequest);

snmp_pdu* make_pdu(int32_t command, long id) {
  snmp_pdu* pdu = snmp_pdu_create(command);
  pdu->request_id = id;
  return pdu;
}

class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    Reqid = 41;
    wanted.peer_name = const_cast<char*>("127.0.0.1");
    wanted.remote_port = agent.port();
    wanted.callback = called;
    wanted.callback_arg = this;
  }
  static void SetUpTestSuite() {  // look-ups keep what they find
    snmp_session named;
    named.peer_name = const_cast<char*>("localhost");
    snmp_close(snmp_open(&named));
  }
  void TearDown() override {
    close_all();
    EXPECT_EQ(open_descriptors(), descriptors) << "a socket was left open";
    EXPECT_EQ(fakes::pieces_held(), pieces) << "memory was not freed";
  }

  static long open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }
  static void close_all() {
    while (Sessions != nullptr) snmp_close(Sessions->session);
  }
  static int called(int operation, snmp_session* session, int32_t id, snmp_pdu* pdu, void* test) {
    auto* self = static_cast<SessionTest*>(test);
    EXPECT_EQ(pdu->address.sin_port, htons(self->agent.port()));
    const int result = self->callback.Call(operation, session);
    EXPECT_EQ(pdu->request_id, id);  // the PDU is valid until the callback returns
    return result;
  }

  snmp_session* open() const { return snmp_open(&wanted); }
  snmp_session* open_synchronous() const {
    snmp_session* session = open();
    EXPECT_EQ(snmp_synch_setup(session), &snmp_synch_state);
    return session;
  }
  // Sends a request, which the agent receives, and returns its record.
  request_record* ask(snmp_session* session, long id = 7) const {
    (void)snmp_send(session, make_pdu(kSnmpGetRequest, id));
    EXPECT_TRUE(agent.receive_now().has_value());
    return snmp_find_entry(session)->state->requests;
  }
  static int pending(const snmp_session* session) {
    int count = 0;
    const request_record* request = snmp_find_entry(session)->state->requests;
    for (; request != nullptr; request = request->next) ++count;
    return count;
  }
  // Sends a datagram from the agent to `session`.
  void answer(const snmp_session* session, const std::string& bytes) const {
    sockaddr_in to{};
    socklen_t size = sizeof to;
    getsockname(snmp_find_entry(session)->state->socket, reinterpret_cast<sockaddr*>(&to), &size);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(agent.socket(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), size);
  }
  // Reads every session, those without a datagram too.
  static void read_all() {
    vx_fd_set all;
    memset(&all, 0xFF, sizeof all);
    snmp_read(&all);
  }
  static void read(const snmp_session* session) {
    vx_fd_set one{};
    VX_FD_SET(snmp_find_entry(session)->state->socket, &one);
    snmp_read(&one);
  }
  auto& expect_call(int operation, snmp_session* session) {
    return EXPECT_CALL(callback, Call(operation, session));
  }
  auto& expect_message(snmp_session* session) { return expect_call(kSnmpReceivedMessage, session); }
  // The status of a synchronous request, which has a response when that is 0 and else none.
  static int ask_and_wait(snmp_session* session, long id = 7, int32_t command = kSnmpGetRequest) {
    snmp_pdu* response = nullptr;
    const int status = snmp_synch_response(session, make_pdu(command, id), &response);
    EXPECT_EQ(response != nullptr ? response->request_id : 0, status == 0 ? id : 0);
    snmp_free_pdu(response);
    return status;
  }

  const long pieces = fakes::pieces_held();
  machine::UdpReceiver agent{0};
  const long descriptors = open_descriptors();
  snmp_session wanted;
  testing::StrictMock<testing::MockFunction<int(int operation, snmp_session*)>> callback;
};

TEST_F(SessionTest, OpensWithDefaultsAndItsOwnTexts) {
  if (machine::skip_outside()) return;
  char peer[] = "manager";
  wanted.peer_name = peer;
  wanted.remote_port = 0;
  for (const int port : {10161, 161}) {
    machine::write_file("/etc/services", port == 161 ? "" : "snmp 162/tcp\nsnmp 10161/udp\n");
    const snmp_session* session = open();
    EXPECT_EQ(session, Sessions->session);
    EXPECT_NE(session->peer_name, peer);
    EXPECT_STREQ(session->peer_name, "manager");
    EXPECT_EQ(memcmp(session->community, "public", 6), 0);
    EXPECT_EQ(session->community_length, 6);
    EXPECT_EQ(session->retries, 4);
    EXPECT_EQ(session->timeout, 1000000);
    EXPECT_EQ(ntohs(Sessions->state->peer_address.sin_port), port);
  }
  EXPECT_EQ(Reqid, 41);
}

TEST_F(SessionTest, OpensAsTheTemplateStates) {
  wanted.retries = 0;
  wanted.timeout = 0;
  wanted.peer_name = nullptr;
  Reqid = 0;
  snmp_session* session = open();
  EXPECT_EQ(session->retries, 0);
  EXPECT_EQ(session->timeout, 0);
  EXPECT_EQ(Sessions->state->peer_address.sin_port, 0);
  EXPECT_NE(Reqid, 0);
  EXPECT_EQ(snmp_close(session), 1);
  EXPECT_EQ(snmp_close(session), 0);
  EXPECT_EQ(snmp_errno, kSnmpErrUnknownSession);
}

TEST_F(SessionTest, FailuresToOpen) {
  if (machine::skip_outside()) return;  // a name is looked up
  const struct {
    const char* peer;
    uint16_t local_port;
    rlim_t descriptors;
    const char* message;
    int code;
  } rows[] = {
      {"no-such-host", 0, 1000, "[41.23] unknown host: no-such-host\n", -3},
      {nullptr, agent.port(), 1000, "bind: Address already in use\n", -2},
      {nullptr, 0, 3, "socket: Too many open files\n", -1},
  };
  for (const auto& row : rows) {
    wanted.peer_name = const_cast<char*>(row.peer);
    wanted.local_port = row.local_port;
    EXPECT_EQ(printed(0,
                      [&] {
                        const DescriptorLimit limit(row.descriptors);
                        EXPECT_EQ(snmp_open(&wanted), nullptr);
                      }),
              row.message);
    EXPECT_EQ(snmp_errno, row.code);
    EXPECT_EQ(Sessions, nullptr);
  }
}

TEST_F(SessionTest, SendsWithWhatWasMissing) {
  const struct {
    uint8_t command;
    long id, status, index;
    int32_t result;
    const char* sent;
    bool is_remembered = true;
  } rows[] = {
      {kSnmpGetRequest, 0, -1, -1, 42, "A00B 02012A 020100 020100 3000"},
      {kSnmpGetNextRequest, 7, 2, 3, 7, "A10B 020107 020102 020103 3000"},
      {kSnmpSetRequest, -5, -2, -3, -5, "A30B 0201FB 0201FE 0201FD 3000"},
      {kSnmpGetResponse, 0, -1, 1, 43, "A20B 02012B 020100 020101 3000", false},
      {kSnmpTrap, 9, 0, 0, 1, "A41B 06082B06010401030101 400400000000 020100 020100 430100 3000",
       false},
  };
  snmp_session* session = open();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sent);
    unique_pdu pdu(make_pdu(row.command, row.id));
    pdu->error_status = row.status;
    pdu->error_index = row.index;
    EXPECT_EQ(snmp_send(session, pdu.get()), row.result);
    EXPECT_EQ(to_hex(agent.receive_now().value_or("").substr(13)), to_hex(from_hex(row.sent)));
    const request_record* newest = Sessions->state->requests;
    EXPECT_EQ(newest->pdu == pdu.get(), row.is_remembered);
    if (row.is_remembered) (void)pdu.release();
  }
}

TEST_F(SessionTest, NoIdOfOursLooksLikeAFailure) {
  Reqid = (1L << 32) - 1;
  EXPECT_EQ(snmp_send(open(), make_pdu(kSnmpGetRequest, 0)), 1);
}

TEST_F(SessionTest, WhatCannotBeSentIsReportedAndNotRemembered) {
  if (machine::skip_outside()) return;  // an address is out of reach
  snmp_session* session = open();
  wanted.peer_name = nullptr;
  snmp_session* without_peer = open();
  const unique_pdu pdu(make_pdu(kSnmpGetRequest, 7));
  auto expect_failure = [&](snmp_session* by, int code, const char* report) {
    EXPECT_EQ(printed(0, [&] { EXPECT_EQ(snmp_send(by, pdu.get()), 0); }), report);
    EXPECT_EQ(snmp_errno, code);
  };
  expect_failure(&wanted, kSnmpErrUnknownSession, "");
  expect_failure(without_peer, kSnmpErrUnknownHost, "[41.64] No remote IP address specified\n");
  pdu->address = {AF_INET, htons(161), {inet_addr("192.0.2.77")}, {}};
  expect_failure(session, kSnmpErrGeneric, "sendto: Network is unreachable\n");
  pdu->command = kSnmpTrap;
  pdu->enterprise_length = 65;  // too long
  expect_failure(session, kSnmpErrGeneric, "[41.65] Error building packet\n");
  EXPECT_EQ(pending(session), 0);
}

TEST_F(SessionTest, RepeatsWithDoubledTimeOutsThenReports) {
  snmp_session* session = open();
  request_record* request = ask(session);
  snmp_timeout();  // its time is not up yet
  EXPECT_EQ(agent.receive_now(), std::nullopt);
  for (int sends : {2, 3, 4}) {
    if (sends == 4) request->timeout = LONG_MAX / 2 + 1;
    request->expires_at = request->sent_at = {};
    snmp_timeout();
    EXPECT_TRUE(agent.receive_now().has_value());
    EXPECT_EQ(request->retries, sends);
    EXPECT_EQ(request->timeout, sends < 4 ? 500000L << sends : LONG_MAX);
    EXPECT_GT(request->sent_at.tv_sec, 0);
    timeval wait{};
    timersub(&request->expires_at, &request->sent_at, &wait);
    EXPECT_EQ(wait.tv_sec * 1000000 + wait.tv_usec, request->timeout);
  }
  request->expires_at = {};
  expect_call(kSnmpTimedOut, session);
  snmp_timeout();
  EXPECT_EQ(agent.receive_now(), std::nullopt);
  EXPECT_EQ(pending(session), 0);
}

TEST_F(SessionTest, ARepetitionThatFailsCounts) {
  if (machine::skip_outside()) return;  // an address is out of reach
  request_record* request = ask(open());
  request->pdu->address.sin_addr.s_addr = inet_addr("192.0.2.77");
  request->expires_at = {};
  EXPECT_EQ(printed(0, snmp_timeout), "sendto: Network is unreachable\n");
  request->pdu->command = kSnmpTrap;  // of an enterprise that is too long
  request->pdu->enterprise_length = 65;
  request->expires_at = {};
  EXPECT_EQ(printed(0, snmp_timeout), "[41.65] Error building packet\n");
  EXPECT_EQ(request->retries, 3);
}

TEST_F(SessionTest, AResponseIsOfferedToTheRequestsOfItsIdUntilOneTakesIt) {
  snmp_session* session = open();
  ask(session);
  ask(session);
  answer(session, message(kSnmpGetResponse, 8));
  read_all();
  expect_message(session).WillOnce(Return(0)).WillOnce(Return(2)).WillOnce(Return(1));
  answer(session, kResponse);
  read_all();
  EXPECT_EQ(pending(session), 2);
  answer(session, kResponse);
  read_all();
  EXPECT_EQ(pending(session), 1);
}

TEST_F(SessionTest, RequestsAreReceivedOnceAndOtherCommandsNever) {
  snmp_session* session = open();
  expect_message(session).Times(3);
  constexpr uint8_t kUnknown = 0xA9;
  for (uint8_t command : {kSnmpGetRequest, kSnmpGetNextRequest, kSnmpSetRequest, kUnknown}) {
    answer(session, message(command));
    read_all();
  }
}

TEST_F(SessionTest, AMangledMessageEndsTheRoundAndAFailureToReceiveDoesNot) {
  snmp_session* oldest = open();
  snmp_session* middle = open();
  snmp_session* newest = open();
  answer(oldest, kRequest);
  answer(middle, "");
  EXPECT_EQ(printed(0, read_all), std::string(kEmptySocket) + "[41.67] Mangled packet\n");
  answer(newest, kRequest);
  const testing::InSequence newest_first;
  expect_message(newest);
  expect_message(oldest);
  EXPECT_EQ(printed(0, read_all), kEmptySocket);
}

// One round over three sessions, oldest first, whose requests are answered or timed out.
TEST_F(SessionTest, ACallbackMayCloseSessions) {
  const struct {
    const char* name;
    std::vector<size_t> closed;  // when the newest session is called
    std::vector<size_t> called;
  } rows[] = {
      {"its own", {2}, {2, 1, 0}},
      {"the next one", {1}, {2, 0}},
      {"the last one", {0}, {2, 1}},
      {"all", {2, 1, 0}, {2}},
  };
  for (const int operation : {kSnmpReceivedMessage, kSnmpTimedOut}) {
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      std::vector<snmp_session*> sessions;
      for (int i = 0; i < 3; ++i) {
        sessions.push_back(open());
        request_record* request = ask(sessions.back());
        answer(sessions.back(), kResponse);
        request->expires_at = {};
        request->retries = sessions.back()->retries;
      }
      const testing::InSequence in_this_order;
      for (size_t called : row.called) {
        expect_call(operation, sessions[called]).WillOnce([&, called] {
          for (size_t i : row.closed) EXPECT_EQ(snmp_close(sessions[i]), called == 2 ? 1 : 0);
          return 1;
        });
      }
      operation == kSnmpTimedOut ? snmp_timeout() : read_all();
      testing::Mock::VerifyAndClearExpectations(&callback);
      close_all();
    }
  }
}

TEST_F(SessionTest, AClosedSessionIsOfferedNothingMore) {
  snmp_session* session = open();
  ask(session);
  ask(session);
  answer(session, kResponse);
  expect_message(session).WillOnce([&] {
    snmp_close(session);
    return 0;
  });
  read_all();
}

TEST_F(SessionTest, ReadAndTimeoutDoNothingInACallback) {
  snmp_session* session = open();
  ask(session)->retries = session->retries;
  answer(session, kRequest);
  answer(session, kRequest);
  expect_message(session).WillOnce([&] {
    Sessions->state->requests->expires_at = {};
    read_all();
    snmp_timeout();
    return 1;
  });
  read_all();
  EXPECT_EQ(pending(session), 1);
}

TEST_F(SessionTest, ASynchronousRequestReturnsItsResponse) {
  snmp_session* session = open_synchronous();
  answer(session, message(kSnmpGetResponse, 8));
  answer(session, kResponse);
  answer(session, kResponse);  // once more: nobody waits for it then
  fakes::refuse(fakes::waits, EINTR, 2);
  EXPECT_EQ(ask_and_wait(session), kSnmpSynchSuccess);
  EXPECT_EQ(pending(session), 0);
  read_all();
}

TEST_F(SessionTest, MessagesDoNotDelayTheTimeOutOfASynchronousRequest) {
  snmp_session* flooded = open();
  snmp_session* session = open_synchronous();
  session->timeout = 0;
  session->retries = 1;
  answer(flooded, kRequest);
  answer(flooded, kRequest);
  expect_message(flooded).Times(1);
  EXPECT_EQ(ask_and_wait(session), kSnmpSynchTimeout);
}

TEST_F(SessionTest, ASynchronousRequestFailsWithoutAResponseToWaitFor) {
  snmp_session* session = open_synchronous();
  EXPECT_EQ(ask_and_wait(session, 7, kSnmpTrap), kSnmpSynchError);
  answer(session, message(kSnmpGetNextRequest));  // of the awaited id
  EXPECT_EQ(ask_and_wait(session), kSnmpSynchError);
  fakes::refuse(fakes::waits, EBADF);
  EXPECT_EQ(printed(0, [&] { EXPECT_EQ(ask_and_wait(session), kSnmpSynchError); }),
            "select: Bad file descriptor\n");
  EXPECT_EQ(pending(session), 2);
  answer(session, kResponse);  // nobody waits for it
  read_all();
  EXPECT_EQ(pending(session), 1);
  snmp_close(session);
  EXPECT_EQ(ask_and_wait(session), kSnmpSynchError);
}

TEST_F(SessionTest, ASynchronousRequestEndsWithItsSession) {
  snmp_session* session = open_synchronous();
  snmp_session* other = open();
  answer(other, kRequest);
  expect_message(other).WillOnce([&] { return snmp_close(session); });
  EXPECT_EQ(ask_and_wait(session), kSnmpSynchError);
}

// The allocator likes to give the memory of what was closed to what is opened next.
TEST_F(SessionTest, ASynchronousRequestThatEndedIsNotTakenForALaterOne) {
  snmp_session* session = open_synchronous();
  snmp_session* other = open();
  request_record* request = ask(other);
  request->expires_at = {};
  request->retries = other->retries;
  answer(other, kRequest);
  wanted.retries = 1;
  wanted.timeout = 200000;
  snmp_session* next = nullptr;
  expect_message(other).WillOnce([&] { return snmp_close(session); });
  expect_call(kSnmpTimedOut, other).WillOnce([&] {
    next = open();
    return snmp_send(next, make_pdu(kSnmpGetRequest, 9));
  });
  EXPECT_EQ(ask_and_wait(session), kSnmpSynchError);
  EXPECT_EQ(pending(next), 1);
}

// Meanwhile nothing more is offered to the request that the callback is called for.
TEST_F(SessionTest, ACallbackMayAskAndWait) {
  for (const int operation : {kSnmpReceivedMessage, kSnmpTimedOut}) {
    snmp_session* session = open_synchronous();
    snmp_session* other = open();
    request_record* request = ask(other);
    request->expires_at = {};
    request->retries = other->retries;
    answer(other, kResponse);
    answer(other, kResponse);
    answer(session, message(kSnmpGetResponse, 8));
    expect_call(operation, other).WillOnce([&] {
      EXPECT_EQ(ask_and_wait(session, 8), kSnmpSynchSuccess);
      return 1;
    });
    operation == kSnmpTimedOut ? snmp_timeout() : read(other);
    testing::Mock::VerifyAndClearExpectations(&callback);
    EXPECT_EQ(pending(other), 0);
    close_all();
    while (agent.receive_now().has_value()) continue;
  }
}

TEST_F(SessionTest, ACallbackThatAsksLeavesTheAnswerOfAnotherRequestAlone) {
  snmp_session* older = open();
  snmp_session* session = open_synchronous();
  answer(session, kResponse);
  answer(session, message(kSnmpGetResponse, 8));
  answer(older, kRequest);
  expect_message(older).WillOnce([&] {
    EXPECT_EQ(ask_and_wait(session, 8), kSnmpSynchError);
    EXPECT_EQ(snmp_errno, kSnmpErrGeneric);
    return 0;
  });
  EXPECT_EQ(ask_and_wait(session), kSnmpSynchSuccess);
  EXPECT_TRUE(agent.receive_now().has_value());
  EXPECT_EQ(agent.receive_now(), std::nullopt);
}

TEST_F(SessionTest, DumpsWhatIsSentRepeatedAndReceived) {
  const std::string dump =
      "30 18 02 01 00 04 06 70 75 62 6C 69 63 A0 0B 02 \n01 07 02 01 00 02 01 00 30 00 \n\n";
  snmp_session* session = open();
  testing::internal::CaptureStdout();
  snmp_dump_packet = 1;
  request_record* request = ask(session);
  request->expires_at = {};
  snmp_timeout();
  answer(session, message(kSnmpGetResponse, 8));
  read_all();
  snmp_dump_packet = 0;
  request->expires_at = {};
  snmp_timeout();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            dump + dump + "[41.66] recieved 20 bytes from 127.0.0.1:\n" +
                "30 12 02 01 00 04 00 A2 0B 02 01 08 02 01 00 02 \n01 00 30 00 \n\n");
}

TEST_F(SessionTest, SelectInfoFindsTheNextExpiry) {
  const struct {
    const char* name;
    long newest_left, oldest_left;  // seconds; 0: the callback has the request
    long timeout;
    int block;
    long wanted_timeout;
    int wanted_block;
  } rows[] = {
      {"no request waits", 0, 0, 50, 1, 50, 1},
      {"the time-out is shorter", 100, 200, 50, 0, 50, 0},
      {"the newest request is first", 100, 200, 150, 0, 100, 0},
      {"the oldest request is first", 200, 100, 50, 1, 100, 0},
      {"a request waits alone", 0, 100, 150, 2, 100, 0},
      {"the time is up and the time-out 0", -1, 100, 0, 2, 0, 2},
      {"the time of the oldest is up", 100, -1, 50, 0, 0, 0},
  };
  snmp_session* session = open();
  request_record* oldest = ask(session);
  request_record* newest = ask(session);
  const long now = time(nullptr);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    newest->expires_at = {now + row.newest_left, 0};
    oldest->expires_at = {now + row.oldest_left, 0};
    newest->busy = row.newest_left == 0;
    oldest->busy = row.oldest_left == 0;
    vx_fd_set readable{};
    timeval timeout = {row.timeout, 0};
    int count = 0;
    int block = row.block;
    EXPECT_EQ(snmp_select_info(&count, &readable, &timeout, &block), 1);
    EXPECT_NEAR(static_cast<double>(timeout.tv_sec), static_cast<double>(row.wanted_timeout), 10);
    EXPECT_EQ(block, row.wanted_block);
  }
}

TEST_F(SessionTest, SelectInfoLeavesOutASocketThatNoSetCanName) {
  open();
  open();
  const int lower = Sessions->next->state->socket;
  const int higher = std::exchange(Sessions->state->socket, kVxFdSetSize);
  vx_fd_set readable{};
  timeval timeout{};
  int count = 0;
  int block = 1;
  EXPECT_EQ(snmp_select_info(&count, &readable, &timeout, &block), 2);
  Sessions->state->socket = higher;
  EXPECT_EQ(count, lower + 1);
  EXPECT_TRUE(VX_FD_ISSET(lower, &readable));
}

TEST_F(SessionTest, NothingIsSentOrRememberedWithoutMemory) {
  for (uint8_t command : {kSnmpGetRequest, kSnmpTrap}) {
    bool refused = true;
    for (int granted = 0; refused; ++granted) {
      unique_pdu pdu(make_pdu(command, 1));
      const fakes::FailingMalloc failing(granted, 1);
      snmp_errno = 0;
      snmp_session* session = snmp_open(&wanted);
      EXPECT_EQ(Sessions != nullptr, session != nullptr);
      const bool is_sent = session != nullptr && snmp_send(session, pdu.get()) == 1;
      refused = failing.failed();
      EXPECT_EQ(is_sent, !refused);
      EXPECT_EQ(snmp_errno, refused ? kSnmpErrGeneric : 0);
      EXPECT_EQ(agent.receive_now().has_value(), is_sent);
      if (is_sent && command == kSnmpGetRequest) (void)pdu.release();
      close_all();
    }
  }
}

TEST(SnmpTexts, OfCodesAndErrorStatus) {
  EXPECT_STREQ(api_errors(1), "[41.69] Unknown host");
  EXPECT_STREQ(snmp_errstring(6), "Unknown Error");
  EXPECT_STREQ(snmp_errstring(-1), "Unknown Error");
}

}  // namespace
