#include "snmp/snmp_api.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <climits>

#include "snmp/snmp_client.h"
#include "snmp/snmp_rounds.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

using namespace fakes;
using namespace machine;

namespace {

using testing::Return;

const NumberedTexts numbered;

// What programs were compiled with: operations of callbacks, results of synchronous requests.
constexpr int kReceived = 1, kTimedOut = 2, kSuccess = 0, kError = 1, kTimeout = 2;

// A message without community and bindings, of the form of requests.
std::string message(uint8_t command, uint8_t id = 7) {
  std::string bytes = from_hex("3012 020100 0400 000B 020100 020100 020100 3000");
  bytes[7] = static_cast<char>(command);
  bytes[11] = static_cast<char>(id);
  return bytes;
}
const std::string kResponse = message(kSnmpGetResponse);
const std::string kRequest = message(kSnmpGetRequest);

snmp_pdu* make_pdu(long id = 7, int32_t command = kSnmpGetRequest) {
  snmp_pdu* pdu = snmp_pdu_create(command);
  pdu->request_id = id;
  return pdu;
}

class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    Reqid = 41;
    snmp_errno = 0;
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
    while (Sessions != nullptr) snmp_close(Sessions->session);
    EXPECT_EQ(pieces_held(), pieces) << "memory was not freed";
  }

  static int called(int operation, snmp_session* session, int32_t id, snmp_pdu* pdu, void* test) {
    const int result = static_cast<SessionTest*>(test)->callback.Call(operation, session);
    EXPECT_EQ(pdu->request_id, id);  // the PDU is valid until the callback returns
    return result;
  }

  snmp_session* open() const { return snmp_open(&wanted); }
  // Sends a request, which the agent receives, and returns its record.
  request_record* ask(snmp_session* session) const {
    (void)snmp_send(session, make_pdu());
    EXPECT_NE(agent.receive_now(), "");
    return snmp_find_entry(session)->state->requests;
  }
  // Sends a request whose last time is up.
  void ask_in_vain(snmp_session* session) const {
    request_record* request = ask(session);
    request->expires_at = {};
    request->retries = session->retries;
  }
  static int pending(const snmp_session* session) {
    int count = 0;
    const request_record* request = snmp_find_entry(session)->state->requests;
    for (; request != nullptr; request = request->next) ++count;
    return count;
  }
  // Sends a datagram from the agent to `session`.
  void answer(const snmp_session* session, const std::string& bytes) const {
    const uint16_t port = port_of(snmp_find_entry(session)->state->socket);
    const sockaddr_in to = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    sendto(agent.socket(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
           sizeof to);
  }
  // Reads every session, those without a datagram too.
  static void read_all() {
    vx_fd_set all;
    memset(&all, 0xFF, sizeof all);
    snmp_read(&all);
  }
  auto& expect_call(int operation, snmp_session* session) {
    return EXPECT_CALL(callback, Call(operation, session));
  }
  // The status of a synchronous request, which has a response when that is 0 and else none.
  static int ask_and_wait(snmp_session* session, long id = 7, int32_t command = kSnmpGetRequest) {
    snmp_synch_setup(session);
    snmp_pdu* response = nullptr;
    const int status = snmp_synch_response(session, make_pdu(id, command), &response);
    EXPECT_EQ(response != nullptr ? response->request_id : 0, status == 0 ? id : 0);
    snmp_free_pdu(response);
    return status;
  }

  const long pieces = pieces_held();
  UdpReceiver agent{0};
  snmp_session wanted;
  testing::StrictMock<testing::MockFunction<int(int operation, snmp_session*)>> callback;
};

TEST_F(SessionTest, OpensWithDefaultsAndItsOwnTexts) {
  if (skip_outside()) return;
  write_file("/etc/services", "snmp 162/tcp\nsnmp 10161/udp\n");
  wanted = {};
  wanted.peer_name = const_cast<char*>("manager");
  wanted.retries = -1;
  wanted.timeout = -1;
  const snmp_session* session = open();
  EXPECT_STREQ(session->peer_name, "manager");  // a copy: closing frees it
  EXPECT_EQ(session->retries, 4);
  EXPECT_EQ(session->timeout, 1000000);
  EXPECT_EQ(ntohs(Sessions->state->peer_address.sin_port), 10161);
}

TEST_F(SessionTest, ClosesOnce) {
  Reqid = 0;
  snmp_session* session = open();
  EXPECT_NE(Reqid, 0);
  const int socket = Sessions->state->socket;
  EXPECT_EQ(snmp_close(session), 1);
  EXPECT_ANY_THROW(port_of(socket)) << "it is closed";
  EXPECT_EQ(snmp_close(session), 0);
  EXPECT_EQ(snmp_errno, -4);
}

TEST_F(SessionTest, FailsToOpenAPortInUse) {
  wanted.local_port = agent.port();
  EXPECT_EQ(printed(0, [this] { EXPECT_EQ(open(), nullptr); }), "bind: Address already in use\n");
  EXPECT_EQ(snmp_errno, -2);
}

TEST_F(SessionTest, SendsWithWhatWasMissing) {
  const struct {
    int32_t command, result;
    long id;
    std::string sent;
  } rows[] = {
      {kSnmpGetRequest, 42, 0, "A00B 02012A 020100 020100 3000"},
      {kSnmpGetNextRequest, 7, 7, "A10B 020107 020100 020100 3000"},
      {kSnmpSetRequest, -5, -5, "A30B 0201FB 020100 020100 3000"},
      {kSnmpGetResponse, 43, 0, "A20B 02012B 020100 020100 3000"},
      {kSnmpTrap, 1, 9, "A41B 06082B06010401030101 400400000000 020100 020100 430100 3000"},
  };
  snmp_session* session = open();
  for (const auto& row : rows) {
    unique_pdu pdu(make_pdu(row.id, row.command));
    EXPECT_EQ(snmp_send(session, pdu.get()), row.result);
    EXPECT_EQ(agent.receive_now(), ber(0x30, from_hex("020100 0406 7075626C6963" + row.sent)));
    if (Sessions->state->requests->pdu == pdu.get()) (void)pdu.release();
  }
  EXPECT_EQ(pending(session), 3);
  Reqid = (1L << 32) - 1;  // the id after it would look like a failure
  EXPECT_EQ(snmp_send(session, make_pdu(0)), 1);
}

TEST_F(SessionTest, WhatCannotBeSentIsReported) {
  snmp_session* session = open();
  const unique_pdu pdu(make_pdu());
  auto expect_failure = [&](snmp_session* by, int code, const char* report) {
    snmp_errno = 0;
    EXPECT_EQ(printed(0, [&] { EXPECT_EQ(snmp_send(by, pdu.get()), 0); }), report);
    EXPECT_EQ(snmp_errno, code);
  };
  expect_failure(&wanted, -4, "");
  pdu->address = {AF_INET, htons(161), {inet_addr("127.255.255.255")}, {}};
  expect_failure(session, -1, "sendto: Permission denied\n");
  pdu->command = kSnmpTrap;
  pdu->enterprise_length = 65;  // too long
  expect_failure(session, -1, "[41.65] Error building packet\n");
  pdu->address = {};
  wanted.peer_name = nullptr;
  expect_failure(open(), -3, "[41.64] No remote IP address specified\n");
  const unique_pdu request(make_pdu());
  const FailingMalloc none(0);
  EXPECT_EQ(snmp_send(session, request.get()), 0) << "which could not be remembered";
  EXPECT_EQ(snmp_errno, -1);
  EXPECT_EQ(agent.receive_now(), "");
}

TEST_F(SessionTest, RepeatsWithDoubledTimeOuts) {
  snmp_session* session = open();
  request_record* request = ask(session);
  snmp_timeout();  // its time is not up yet
  EXPECT_EQ(agent.receive_now(), "");
  const struct {
    long before, after;
  } rows[] = {{1000000, 2000000}, {LONG_MAX / 2, LONG_MAX - 1}, {LONG_MAX / 2 + 1, LONG_MAX}};
  for (const auto& row : rows) {
    request->timeout = row.before;
    request->expires_at = {};
    snmp_timeout();
    EXPECT_NE(agent.receive_now(), "");
    EXPECT_EQ(request->timeout, row.after);
    timeval wait{};
    timersub(&request->expires_at, &request->sent_at, &wait);
    EXPECT_EQ(wait.tv_sec * 1000000 + wait.tv_usec, row.after);
  }
  request->expires_at = {};
  expect_call(kTimedOut, session);
  snmp_timeout();
  EXPECT_EQ(agent.receive_now(), "");
  EXPECT_EQ(pending(session), 0);
}

TEST_F(SessionTest, AResponseIsOfferedUntilOneTakesIt) {
  snmp_session* session = open();
  ask(session);
  ask(session);
  answer(session, message(kSnmpGetResponse, 8));
  read_all();
  expect_call(kReceived, session).WillOnce(Return(0)).WillOnce(Return(2)).WillOnce(Return(1));
  answer(session, kResponse);
  read_all();
  answer(session, kResponse);
  read_all();
  EXPECT_EQ(pending(session), 1);
  session->callback = nullptr;
  answer(session, kResponse);
  read_all();
  EXPECT_EQ(pending(session), 1);
}

TEST_F(SessionTest, AMangledMessageEndsTheRound) {
  snmp_session* oldest = open();
  snmp_session* middle = open();
  open();  // nothing is there for it
  snmp_session* newest = open();
  answer(oldest, kRequest);
  answer(middle, "");
  answer(newest, kRequest);
  const std::string failure = "recvfrom: Resource temporarily unavailable\n";
  {
    const FailingMalloc failing(0, 1);  // no memory for the first PDU
    EXPECT_EQ(printed(0, read_all), failure + "[41.67] Mangled packet\n");
  }
  answer(newest, kRequest);
  expect_call(kReceived, newest);
  expect_call(kReceived, oldest);
  EXPECT_EQ(printed(0, read_all), failure + failure);
}

// One round over three sessions, newest first, whose requests are answered or have timed out.
TEST_F(SessionTest, ACallbackMayCloseSessions) {
  for (const int operation : {kReceived, kTimedOut}) {
    snmp_session* oldest = open();
    snmp_session* middle = open();
    snmp_session* newest = open();
    for (snmp_session* session : {oldest, middle, newest, newest}) {
      ask_in_vain(session);
      answer(session, kResponse);
    }
    expect_call(operation, newest).WillOnce([&] {
      read_all();
      snmp_timeout();
      snmp_close(middle);
      snmp_close(newest);
      return 0;
    });
    expect_call(operation, oldest).WillOnce([&] { return snmp_close(oldest); });
    operation == kTimedOut ? snmp_timeout() : read_all();
    testing::Mock::VerifyAndClearExpectations(&callback);
  }
}

TEST_F(SessionTest, ReturnsTheResponse) {
  snmp_session* session = open();
  EXPECT_EQ(snmp_send(session, make_pdu(8)), 8);
  answer(session, message(kSnmpGetResponse, 8));
  answer(session, kResponse);
  refuse(waits, EINTR, 2);
  EXPECT_EQ(ask_and_wait(session), kSuccess);
  EXPECT_EQ(pending(session), 1) << "the other one";
}

TEST_F(SessionTest, MessagesDoNotDelayATimeOut) {
  snmp_session* flooded = open();
  snmp_session* session = open();
  session->timeout = 0;
  session->retries = 1;
  EXPECT_EQ(ask_and_wait(session), kTimeout) << "without a message";
  answer(flooded, kRequest);
  answer(flooded, kRequest);
  expect_call(kReceived, flooded).Times(1);
  EXPECT_EQ(ask_and_wait(session), kTimeout);
}

TEST_F(SessionTest, ASynchronousRequestMayFail) {
  snmp_session* session = open();
  answer(session, message(kSnmpGetNextRequest));  // of the awaited id
  EXPECT_EQ(ask_and_wait(session), kError);
  EXPECT_EQ(ask_and_wait(session, 7, kSnmpTrap), kError);
  refuse(waits, EBADF);
  EXPECT_EQ(printed(0, [&] { EXPECT_EQ(ask_and_wait(session), kError); }),
            "select: Bad file descriptor\n");
  answer(session, kResponse);  // which is late
  read_all();
  EXPECT_EQ(pending(session), 1);
}

// The allocator likes to give the memory of what was closed to what is opened next.
TEST_F(SessionTest, ASynchronousRequestEndsWithItsSession) {
  snmp_session* session = open();
  snmp_session* other = open();
  ask_in_vain(other);
  answer(other, kRequest);
  snmp_session* next = nullptr;
  expect_call(kReceived, other).WillOnce([&] {
    EXPECT_EQ(ask_and_wait(session, 8), kError) << "one at a time";
    EXPECT_EQ(snmp_errno, -1);
    return snmp_close(session);
  });
  expect_call(kTimedOut, other).WillOnce([&] {
    next = open();
    return snmp_send(next, make_pdu(9));
  });
  EXPECT_EQ(ask_and_wait(session), kError);
  EXPECT_EQ(pending(next), 1);
}

// Meanwhile nothing more is offered to the request that the callback is called for.
TEST_F(SessionTest, ACallbackMayAskAndWait) {
  snmp_session* session = open();
  snmp_session* other = open();
  ask_in_vain(other);
  answer(other, kResponse);
  answer(other, kResponse);
  answer(session, message(kSnmpGetResponse, 8));
  expect_call(kReceived, other).WillOnce([&] {
    EXPECT_EQ(ask_and_wait(session, 8), kSuccess);
    return 0;
  });
  read_all();
  EXPECT_EQ(pending(other), 1);
}

TEST_F(SessionTest, SelectInfoFindsTheNextExpiry) {
  snmp_session* session = open();
  int count = 0;
  // A wait of `seconds` becomes one of `wanted_seconds`.
  auto expect_wait = [&count](int seconds, int block, int wanted_seconds, int wanted_block) {
    vx_fd_set readable{};
    timeval timeout = {seconds, 0};
    count = 0;
    EXPECT_EQ(snmp_select_info(&count, &readable, &timeout, &block), 1);
    EXPECT_NEAR(static_cast<int>(timeout.tv_sec), wanted_seconds, 10);
    EXPECT_EQ(block, wanted_block);
  };
  expect_wait(50, 1, 50, 1);
  request_record* oldest = ask(session);
  request_record* newest = ask(session);
  oldest->expires_at = {time(nullptr) + 200, 0};
  newest->expires_at = {time(nullptr) + 100, 0};
  expect_wait(50, 1, 100, 0);
  newest->busy = true;
  expect_wait(250, 2, 200, 0);
  oldest->expires_at = {};
  const int socket = std::exchange(Sessions->state->socket, kVxFdSetSize - 1);
  expect_wait(50, 0, 0, 0);
  EXPECT_EQ(count, kVxFdSetSize);
  Sessions->state->socket = socket;
}

}  // namespace
