#include "snmp/snmp_api.h"

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "snmp/asn1.h"
#include "snmp/snmp.h"
#include "snmp/snmp_client.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/printed.h"

namespace {

const uint64_t kSysDescr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};

// What a session's callback was called with, and what it does.
struct Calls {
  std::vector<std::pair<int, int32_t>> seen;  // operation and request id
  int result = 1;
  std::function<void(snmp_session*)> action;
};

int record_call(int operation, snmp_session* session, int32_t request_id, snmp_pdu*, void* calls) {
  auto* record = static_cast<Calls*>(calls);
  record->seen.emplace_back(operation, request_id);
  if (record->action) record->action(session);
  return record->result;
}

snmp_pdu* get_request() {
  snmp_pdu* pdu = snmp_pdu_create(kSnmpGetRequest);
  snmp_add_null_var(pdu, kSysDescr, 9);
  return pdu;
}

class SessionTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    agent.emplace(uint16_t{0});
    wanted.peer_name = const_cast<char*>("127.0.0.1");
    wanted.remote_port = agent->port();
    wanted.retries = kSnmpDefaultRetries;
    wanted.timeout = kSnmpDefaultTimeout;
    wanted.callback = record_call;
    wanted.callback_arg = &calls;
  }
  void TearDown() override {
    while (Sessions != nullptr) snmp_close(Sessions->session);
  }

  // Sends `bytes` from the agent to the session that was opened last.
  void answer(const std::string& bytes) {
    sockaddr_in to{};
    socklen_t size = sizeof to;
    getsockname(Sessions->state->socket, reinterpret_cast<sockaddr*>(&to), &size);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(agent->socket(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), size);
  }
  // The request as the agent answers it.
  static std::string response_to(std::string request, char command = '\xA2') {
    size_t at = request.find('\xA0');
    if (at != std::string::npos) request[at] = command;
    return request;
  }
  void read_all() {
    vx_fd_set readable{};
    for (session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
      VX_FD_SET(entry->state->socket, &readable);
    }
    snmp_read(&readable);
  }
  std::optional<lab::UdpReceiver> agent;
  snmp_session wanted{};
  Calls calls;
};

TEST_F(SessionTest, DefaultsAndOwnCopies) {
  char peer[] = "manager";
  wanted.peer_name = peer;
  wanted.remote_port = 0;
  for (auto [services, port] : {std::pair{"snmp 16100/tcp\nsnmp 10161/udp\n", 10161}, {"", 161}}) {
    lab::write_file("/etc/services", services);
    ASSERT_NE(snmp_open(&wanted), nullptr);
    EXPECT_EQ(ntohs(Sessions->state->peer_address.sin_port), port);
  }
  snmp_session* session = Sessions->session;
  peer[0] = '?';
  EXPECT_STREQ(session->peer_name, "manager");
  EXPECT_EQ(std::string(reinterpret_cast<char*>(session->community), 6), "public");
  EXPECT_EQ(std::pair(session->retries, session->timeout), std::pair(4, 1000000L));
  EXPECT_EQ(snmp_close(session), 1);
  EXPECT_EQ(snmp_close(session), 0);
}

TEST_F(SessionTest, FailuresToOpen) {
  const int before = dup(0);
  auto open_in_vain = [this] { EXPECT_EQ(snmp_open(&wanted), nullptr); };
  wanted.peer_name = const_cast<char*>("no-such-host");
  EXPECT_EQ(printed(0, open_in_vain), "unknown host: no-such-host\n");
  EXPECT_EQ(snmp_errno, kSnmpErrUnknownHost);
  wanted.peer_name = nullptr;
  wanted.local_port = agent->port();
  EXPECT_EQ(printed(0, open_in_vain), "bind: Address already in use\n");
  EXPECT_EQ(snmp_errno, kSnmpErrBadLocalPort);
  EXPECT_EQ(Sessions, nullptr);
  const int after = dup(0);
  EXPECT_EQ(after, before + 1) << "a socket was left open";
  close(before);
  close(after);
}

TEST_F(SessionTest, TrapsAreForgottenAndNoIdLooksLikeAFailure) {
  snmp_session* session = snmp_open(&wanted);
  snmp_pdu* trap = snmp_pdu_create(kSnmpTrap);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(snmp_send(session, trap), 1);
    // The enterprise that a trap without one gets.
    EXPECT_NE(agent->receive().value_or("").find(from_hex("06082B06010401030101")),
              std::string::npos);
  }
  EXPECT_EQ(Sessions->state->requests, nullptr);
  snmp_free_pdu(trap);

  snmp_pdu* pdu = get_request();
  pdu->request_id = 1L << 32;  // 0 on the wire
  Reqid = 41;
  EXPECT_EQ(snmp_send(session, pdu), 42);
  Reqid = (1L << 32) - 1;
  EXPECT_EQ(snmp_send(session, get_request()), 1);
}

TEST_F(SessionTest, FailuresToSendLeaveNothingBehind) {
  snmp_session* session = snmp_open(&wanted);
  snmp_pdu* pdu = get_request();
  auto expect_refused = [pdu](snmp_session* by, int error, const char* told) {
    EXPECT_EQ(printed(0, [&] { EXPECT_EQ(snmp_send(by, pdu), 0); }), told);
    EXPECT_EQ(snmp_errno, error);
    EXPECT_EQ(Sessions->state->requests, nullptr);
  };
  expect_refused(session + 1, kSnmpErrUnknownSession, "");
  pdu->address.sin_family = AF_INET;
  pdu->address.sin_port = htons(9);
  pdu->address.sin_addr.s_addr = inet_addr("192.0.2.77");
  expect_refused(session, kSnmpErrGeneric, "sendto: Network is unreachable\n");
  pdu->variables->type = 0x46;
  expect_refused(session, kSnmpErrGeneric, "Error building packet\n");
  wanted.peer_name = nullptr;
  pdu->address = {};
  expect_refused(snmp_open(&wanted), kSnmpErrUnknownHost, "No remote IP address specified\n");
  snmp_free_pdu(pdu);
}

TEST_F(SessionTest, RepeatsWithDoubledTimeOutsThenReports) {
  snmp_session* session = snmp_open(&wanted);
  int32_t id = snmp_send(session, get_request());
  EXPECT_EQ(id, static_cast<int32_t>(Reqid));
  request_record* request = Sessions->state->requests;
  const std::string first = agent->receive().value_or("");
  snmp_timeout();  // its time is not up yet
  EXPECT_EQ(agent->receive_now(), std::nullopt);
  for (int sends : {2, 3, 4}) {
    request->expires_at = {};
    snmp_timeout();
    EXPECT_EQ(agent->receive(), first);
    EXPECT_EQ(request->retries, sends);
    EXPECT_EQ(request->timeout, 1000000L << (sends - 1));
    timeval wait{};
    timersub(&request->expires_at, &request->sent_at, &wait);
    EXPECT_EQ(wait.tv_sec * 1000000 + wait.tv_usec, request->timeout);
  }
  EXPECT_TRUE(calls.seen.empty());
  request->expires_at = {};
  snmp_timeout();
  EXPECT_EQ(calls.seen, (std::vector{std::pair{kSnmpTimedOut, id}}));
  EXPECT_EQ(Sessions->state->requests, nullptr);
  EXPECT_EQ(agent->receive_now(), std::nullopt);
}

TEST_F(SessionTest, ResponsesReachTheirRequest) {
  snmp_session* session = snmp_open(&wanted);
  int32_t id = snmp_send(session, get_request());
  std::string request = agent->receive().value_or("");
  // The last byte of the request id stands behind its tag and length.
  std::string stranger = response_to(request);
  size_t id_tag = stranger.find('\xA2') + 2;
  stranger[id_tag + 1 + static_cast<size_t>(stranger[id_tag + 1])] ^= 1;

  const struct {
    std::string message;
    size_t calls;      // so far
    int result;        // of the callback
    bool is_answered;  // the request
  } steps[] = {{stranger, 0, 1, false},
               {response_to(request), 1, 0, false},  // not taken: goes on waiting
               {response_to(request), 2, 1, true},
               {response_to(request), 2, 1, true},  // comes twice: not wanted any more
               {request, 3, 1, true},               // somebody else's request is shown
               {response_to(request, '\xA9'), 3, 1, true}};
  for (const auto& step : steps) {
    calls.result = step.result;
    answer(step.message);
    read_all();
    EXPECT_EQ(calls.seen, (std::vector(step.calls, std::pair{kSnmpReceivedMessage, id})));
    EXPECT_EQ(Sessions->state->requests == nullptr, step.is_answered);
  }
}

TEST_F(SessionTest, OneRoundReadsEverySessionUpToAMangledPacket) {
  for (const char* packet : {"", "3012 020100 0400 A00B 020109 020100 020100 3000"}) {
    ASSERT_NE(snmp_open(&wanted), nullptr);
    answer(from_hex("3012 020100 0400 A00B 020109 020100 020100 3000"));
    if (*packet != '\0') answer("rubbish");
  }
  EXPECT_EQ(printed(0, [&] { read_all(); }), "");
  EXPECT_EQ(calls.seen, (std::vector(2, std::pair{kSnmpReceivedMessage, 9})));
  EXPECT_EQ(printed(0, [&] { read_all(); }), "Mangled packet\n");
}

TEST_F(SessionTest, FailuresWhileWaiting) {
  snmp_session* session = snmp_open(&wanted);
  ASSERT_NE(snmp_send(session, get_request()), 0);
  request_record* request = Sessions->state->requests;
  agent->receive();
  request->pdu->address.sin_addr.s_addr = inet_addr("192.0.2.77");
  request->expires_at = {};
  EXPECT_EQ(printed(0, snmp_timeout), "sendto: Network is unreachable\n");
  request->pdu->variables->type = 0x46;  // cannot be built, and counts
  request->expires_at = {};
  EXPECT_EQ(printed(0, snmp_timeout), "Error building packet\n");
  EXPECT_EQ(request->retries, 3);
  EXPECT_EQ(agent->receive_now(), std::nullopt);

  dup2(STDIN_FILENO, Sessions->state->socket);
  EXPECT_EQ(printed(0, [&] { read_all(); }), "recvfrom: Socket operation on non-socket\n");
}

TEST_F(SessionTest, CallbackMayCloseItsSession) {
  calls.action = snmp_close;
  snmp_session* session = snmp_open(&wanted);
  ASSERT_NE(snmp_send(session, get_request()), 0);
  session->retries = 1;
  Sessions->state->requests->expires_at = {};
  snmp_timeout();
  EXPECT_EQ(Sessions, nullptr);

  calls.action = [&](snmp_session* own) {
    // With the allocator's short lists full, a new entry gets the old one's place.
    void* same_size[8];
    for (void*& memory : same_size) memory = malloc(sizeof(session_entry));
    for (void* memory : same_size) free(memory);
    snmp_close(own);
    EXPECT_NE(snmp_open(&wanted), nullptr);
  };
  ASSERT_NE(snmp_send(snmp_open(&wanted), get_request()), 0);
  agent->receive();
  answer(response_to(agent->receive().value_or("")));
  read_all();
  EXPECT_EQ(calls.seen.size(), 2u);
  ASSERT_NE(Sessions, nullptr);
  EXPECT_EQ(Sessions->state->requests, nullptr);
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

  ASSERT_NE(snmp_send(session, get_request()), 0);
  timeval short_wait = {0, 1};
  block = 0;
  snmp_select_info(&count, &readable, &short_wait, &block);
  EXPECT_EQ(short_wait.tv_usec, 1);  // shorter than what the request asks for
  Sessions->next->state->requests->expires_at = {};
  block = 1;
  snmp_select_info(&count, &readable, &timeout, &block);
  EXPECT_EQ(block + timeout.tv_sec + timeout.tv_usec, 0);

  // A descriptor that no set can name is left out, and counted as a session.
  const int named = std::exchange(Sessions->state->socket, kVxFdSetSize);
  count = 0;
  EXPECT_EQ(snmp_select_info(&count, &readable, &timeout, &block), 2);
  EXPECT_EQ(count, Sessions->next->state->socket + 1);
  Sessions->state->socket = named;
}

TEST_F(SessionTest, Synchronous) {
  wanted.timeout = 1000;
  wanted.retries = 1;
  snmp_session* session = snmp_open(&wanted);
  EXPECT_EQ(snmp_synch_setup(session), &snmp_synch_state);
  snmp_pdu* response = nullptr;
  EXPECT_EQ(snmp_synch_response(session, get_request(), &response), kSnmpSynchTimeout);
  EXPECT_EQ(response, nullptr);
  agent->receive();

  // From now on with a descriptor beyond the platform's sets.
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const int high = dup2(Sessions->state->socket, FD_SETSIZE + 500);
  ASSERT_GT(high, FD_SETSIZE);
  close(std::exchange(Sessions->state->socket, high));
  struct sigaction interrupt {};
  interrupt.sa_handler = [](int) {};  // no SA_RESTART: the wait ends with EINTR
  sigaction(SIGUSR1, &interrupt, nullptr);
  session->timeout = 60'000'000;
  std::string last_request;
  // The id arrives in a message that is no response: an error, and nothing stale.
  for (auto [command, status] : {std::pair{'\xA2', kSnmpSynchSuccess}, {'\xA1', kSnmpSynchError}}) {
    std::thread answering([&, reply = command, waiting = pthread_self()] {
      last_request = agent->receive().value_or("");
      for (int i = 0; i < 20; ++i, usleep(1000)) pthread_kill(waiting, SIGUSR1);
      answer(response_to(last_request, reply));
    });
    EXPECT_EQ(snmp_synch_response(session, get_request(), &response), status);
    answering.join();
    EXPECT_EQ(response != nullptr, status == kSnmpSynchSuccess);
    snmp_free_pdu(response);
    read_all();
  }
  signal(SIGUSR1, SIG_DFL);
  // The response after all: nobody waits for it any more.
  snmp_synch_state.response = nullptr;
  answer(response_to(last_request));
  read_all();
  EXPECT_EQ(snmp_synch_state.response, nullptr);

  EXPECT_EQ(snmp_synch_response(session + 1, get_request(), &response), kSnmpSynchError);
  // A wait that fails ends with an error. Here a second session lost its socket.
  ASSERT_NE(snmp_open(&wanted), nullptr);
  auto wait_in_vain = [&] {
    close(Sessions->state->socket);
    EXPECT_EQ(snmp_synch_response(session, get_request(), &response), kSnmpSynchError);
  };
  EXPECT_EQ(printed(0, wait_in_vain), "select: Bad file descriptor\n");
  dup2(agent->socket(), Sessions->state->socket);  // something for snmp_close to close
}

TEST_F(SessionTest, SynchronousWaitEndsWhenItsSessionIsClosed) {
  snmp_session* session = snmp_open(&wanted);
  snmp_synch_setup(session);
  calls.action = [&](snmp_session*) { snmp_close(session); };
  ASSERT_NE(snmp_open(&wanted), nullptr);
  // A request of somebody else reaches the second session while the first one waits.
  std::thread asking([&] { answer(agent->receive().value_or("")); });
  snmp_pdu* response = nullptr;
  EXPECT_EQ(snmp_synch_response(session, get_request(), &response), kSnmpSynchError);
  asking.join();
  EXPECT_EQ(calls.seen.size(), 1u);
}

// From the first to the last allocation of an exchange: no leak, no crash, and nothing
// remembered of what failed.
TEST_F(SessionTest, EveryAllocationMayFail) {
  bool failed = true;
  for (int granted = 0; failed; ++granted) {
    {
      FailingMalloc failing(granted);
      snmp_session* session = snmp_open(&wanted);
      EXPECT_TRUE(session != nullptr || (Sessions == nullptr && snmp_errno == kSnmpErrGeneric));
      snmp_pdu* request = snmp_pdu_create(kSnmpGetRequest);
      if (request != nullptr) snmp_add_null_var(request, kSysDescr, 9);
      bool kept = session != nullptr && request != nullptr && snmp_send(session, request) != 0;
      EXPECT_EQ(kept, session != nullptr && Sessions->state->requests != nullptr);
      if (!kept) snmp_free_pdu(request);
      failed = failing.failed();
    }
    if (Sessions != nullptr) snmp_close(Sessions->session);
  }
  EXPECT_TRUE(agent->receive().has_value());
}

TEST_F(SessionTest, DecodingWithoutMemory) {
  std::string message = from_hex(
      "302C 020100 04067075626C6963 A41F 06022B06 4004C0000201 020106 020101 430100 300A"
      "3008 06022B06 06022B06");
  std::vector<uint8_t> packet(message.begin(), message.end());
  bool failed = true;
  for (int granted = 0; failed; ++granted) {
    snmp_pdu* pdu = snmp_pdu_create(0);
    {
      FailingMalloc failing(granted);
      const SnmpParse result = snmp_parse_packet(&wanted, pdu, packet);
      failed = failing.failed();
      EXPECT_EQ(result == SnmpParse::kDone, !failed);
    }
    snmp_free_pdu(pdu);
  }
}

}  // namespace
