#include "snmp/snmp_api.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/text/vxprint.h"
#include "liblocal/threads/c_memory.h"
#include "snmp/snmp.h"

session_entry* Sessions = nullptr;
long Reqid = 0;
int snmp_errno = 0;
int snmp_dump_packet = 0;
const uint64_t default_enterprise[9] = {1, 3, 6, 1, 4, 1, 3, 1, 1};

namespace {

constexpr int32_t kMessageSet = 41;  // catalog set of the engine's messages
constexpr int32_t kRetries = 4;
constexpr long kTimeout = 1000000;  // microseconds
constexpr long kMicrosecondsPerSecond = 1000000;
constexpr uint16_t kSnmpPort = 161;
constexpr char kCommunity[] = "public";
constexpr long kTrapRequestId = 1;
constexpr int32_t kDumpColumns = 16;

// A callback may close any session, and the loop that called it must then not go on
// with what it had in hand. The count tells that one was closed, and `delivering`,
// the entry whose requests are being walked, turns null when it was that one: its
// address alone would not tell, since a session opened since may have got it.
unsigned closed_sessions = 0;
const session_entry* delivering = nullptr;

session_entry* find_entry(const snmp_session* session) {
  session_entry* entry = Sessions;
  while (entry != nullptr && entry->session != session) entry = entry->next;
  if (entry == nullptr) snmp_errno = kSnmpErrUnknownSession;
  return entry;
}

timeval now() {
  timeval time{};
  gettimeofday(&time, nullptr);
  return time;
}

timeval add_microseconds(timeval time, long microseconds) {
  time.tv_sec += microseconds / kMicrosecondsPerSecond;
  time.tv_usec += microseconds % kMicrosecondsPerSecond;
  if (time.tv_usec >= kMicrosecondsPerSecond) {
    ++time.tv_sec;
    time.tv_usec -= kMicrosecondsPerSecond;
  }
  return time;
}

void free_request(request_record* request) {
  snmp_free_pdu(request->pdu);
  free(request);
}

void free_entry(session_entry* entry) {
  if (entry->session != nullptr) {
    free(entry->session->community);
    free(entry->session->peer_name);
    free(entry->session);
  }
  if (entry->state != nullptr) {
    if (entry->state->socket != -1) close(entry->state->socket);
    while (request_record* request = entry->state->requests) {
      entry->state->requests = request->next;
      free_request(request);
    }
    free(entry->state);
  }
  free(entry);
}

// --- Opening -----------------------------------------------------------------

void seed_request_ids() {
  if (Reqid != 0) return;
  timeval time = now();
  srand(static_cast<unsigned>(time.tv_sec) ^ static_cast<unsigned>(time.tv_usec));
  Reqid = rand();
}

// A new entry at the head of Sessions; null without memory.
session_entry* add_entry(const snmp_session* session_template) {
  auto* entry = static_cast<session_entry*>(calloc(1, sizeof(session_entry)));
  if (entry == nullptr) return nullptr;
  entry->state = static_cast<session_state*>(calloc(1, sizeof(session_state)));
  entry->session = static_cast<snmp_session*>(malloc(sizeof(snmp_session)));
  if (entry->state == nullptr || entry->session == nullptr) {
    free(entry->state);
    free(entry->session);
    free(entry);
    return nullptr;
  }
  entry->state->socket = -1;
  *entry->session = *session_template;
  entry->session->community = nullptr;
  entry->session->peer_name = nullptr;
  entry->next = Sessions;
  Sessions = entry;
  return entry;
}

// Gives the copy its own texts and puts the defaults where the template asks for
// them. False without memory.
bool complete_session(snmp_session* session, const snmp_session* session_template) {
  if (session_template->peer_name != nullptr) {
    session->peer_name = strdup(session_template->peer_name);
    if (session->peer_name == nullptr) return false;
  }
  const void* community = session_template->community;
  if (session->community_length == 0) {
    community = kCommunity;
    session->community_length = sizeof kCommunity - 1;
  }
  auto bytes = static_cast<size_t>(session->community_length);
  session->community = static_cast<uint8_t*>(malloc(bytes));
  if (session->community == nullptr) return false;
  memcpy(session->community, community, bytes);
  if (session->retries == kSnmpDefaultRetries) session->retries = kRetries;
  if (session->timeout == kSnmpDefaultTimeout) session->timeout = kTimeout;
  return true;
}

bool open_socket(session_state* state) {
  state->socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (state->socket != -1) return true;
  perror("socket");
  snmp_errno = kSnmpErrGeneric;
  return false;
}

in_port_t peer_port(const snmp_session* session) {
  if (session->remote_port != 0) return htons(session->remote_port);
  const servent* service = vx_ts_getservbyname("snmp", "udp");
  return service != nullptr ? static_cast<in_port_t>(service->s_port) : htons(kSnmpPort);
}

bool resolve_peer(const snmp_session* session, sockaddr_in* peer) {
  if (session->peer_name == nullptr) return true;
  peer->sin_addr.s_addr = inet_addr(session->peer_name);
  if (peer->sin_addr.s_addr == INADDR_NONE) {
    const hostent* host = vx_ts_gethostbyname(session->peer_name);
    if (host == nullptr) {
      vxfprintf(stderr, vxcatgets(Catd, kMessageSet, 23, "unknown host: %s\n"), session->peer_name);
      snmp_errno = kSnmpErrUnknownHost;
      return false;
    }
    memcpy(&peer->sin_addr, host->h_addr_list[0], sizeof peer->sin_addr);
  }
  peer->sin_family = AF_INET;
  peer->sin_port = peer_port(session);
  return true;
}

bool bind_socket(const snmp_session* session, int socket) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(session->local_port);
  if (bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0) return true;
  perror("bind");
  snmp_errno = kSnmpErrBadLocalPort;
  return false;
}

// --- Sending -----------------------------------------------------------------

bool is_request(int32_t command) {
  return command == kSnmpGetRequest || command == kSnmpGetNextRequest || command == kSnmpSetRequest;
}

int32_t low_32_bits(long request_id) { return static_cast<int32_t>(request_id); }

// A result of 0 means failure, so no request may carry an id whose low bits are 0.
long next_request_id() {
  do {
    ++Reqid;
  } while (low_32_bits(Reqid) == 0);
  return Reqid;
}

bool complete_trap(snmp_pdu* pdu) {
  pdu->request_id = kTrapRequestId;
  if (pdu->enterprise_length != 0) return true;
  auto* enterprise = static_cast<uint64_t*>(malloc(sizeof default_enterprise));
  if (enterprise == nullptr) return false;
  memcpy(enterprise, default_enterprise, sizeof default_enterprise);
  free(pdu->enterprise);
  pdu->enterprise = enterprise;
  pdu->enterprise_length = sizeof default_enterprise / sizeof *default_enterprise;
  return true;
}

bool complete_pdu(snmp_pdu* pdu) {
  if (!is_request(pdu->command) && pdu->command != kSnmpGetResponse) return complete_trap(pdu);
  if (low_32_bits(pdu->request_id) == 0) pdu->request_id = next_request_id();
  if (pdu->error_status == -1) pdu->error_status = 0;
  if (pdu->error_index == -1) pdu->error_index = 0;
  return true;
}

bool complete_address(snmp_pdu* pdu, const sockaddr_in& peer) {
  if (pdu->address.sin_addr.s_addr == 0) pdu->address = peer;
  if (pdu->address.sin_addr.s_addr != 0) return true;
  vxfprintf(stderr, "%s", vxcatgets(Catd, kMessageSet, 64, "No remote IP address specified\n"));
  snmp_errno = kSnmpErrUnknownHost;
  return false;
}

// Two hex digits and a blank for every byte, 16 to a line.
void dump_packet(const uint8_t* packet, int32_t length) {
  for (int32_t i = 0; i < length; ++i) {
    vxprintf("%02X ", packet[i]);
    if (i % kDumpColumns == kDumpColumns - 1) vxprintf("\n");
  }
  vxprintf("\n\n");
}

// Builds the message of `pdu` in `packet`, which holds kSnmpMaxPacket bytes, and
// returns its length, or 0 after a report.
int32_t build_message(const snmp_session* session, const snmp_pdu* pdu, uint8_t* packet) {
  int32_t length = kSnmpMaxPacket;
  if (snmp_build_packet(session, pdu, packet, &length) != 0) {
    vxfprintf(stderr, "%s", vxcatgets(Catd, kMessageSet, 65, "Error building packet\n"));
    snmp_errno = kSnmpErrGeneric;
    return 0;
  }
  return length;
}

bool send_message(int socket, const snmp_pdu* pdu, const uint8_t* packet, int32_t length) {
  ssize_t sent = sendto(socket, packet, static_cast<size_t>(length), 0,
                        reinterpret_cast<const sockaddr*>(&pdu->address), sizeof pdu->address);
  if (sent >= 0) return true;
  perror("sendto");
  snmp_errno = kSnmpErrGeneric;
  return false;
}

void start_waiting(request_record* request, const timeval& sent_at) {
  request->sent_at = sent_at;
  request->expires_at = add_microseconds(sent_at, request->timeout);
}

// --- Receiving and repeating -------------------------------------------------

int call_back(int operation, snmp_session* session, snmp_pdu* pdu) {
  if (session->callback == nullptr) return 0;
  return session->callback(operation, session, low_32_bits(pdu->request_id), pdu,
                           session->callback_arg);
}

void unlink_request(session_state* state, const request_record* request) {
  request_record** link = &state->requests;
  while (*link != request) link = &(*link)->next;
  *link = request->next;
}

// Offers a response to the requests with its id until it is taken. False when a
// session was closed.
bool deliver_response(session_entry* entry, snmp_pdu* response) {
  int32_t id = low_32_bits(response->request_id);
  unsigned closed_before = closed_sessions;
  delivering = entry;
  request_record* next = nullptr;
  for (request_record* request = entry->state->requests; request != nullptr; request = next) {
    next = request->next;
    if (low_32_bits(request->request_id) != id) continue;
    int taken = call_back(kSnmpReceivedMessage, entry->session, response);
    if (delivering == nullptr) return false;
    if (taken == 1) {
      unlink_request(entry->state, request);
      free_request(request);
      break;
    }
  }
  return closed_sessions == closed_before;
}

bool deliver(session_entry* entry, snmp_pdu* pdu) {
  if (pdu->command == kSnmpGetResponse) return deliver_response(entry, pdu);
  if (!is_request(pdu->command) && pdu->command != kSnmpTrap) return true;
  unsigned closed_before = closed_sessions;
  call_back(kSnmpReceivedMessage, entry->session, pdu);
  return closed_sessions == closed_before;
}

// Reads and delivers one datagram. False when the round of sessions must end.
bool read_session(session_entry* entry) {
  uint8_t packet[kSnmpMaxPacket];
  sockaddr_in from{};
  socklen_t from_length = sizeof from;
  // A datagram whose checksum is wrong is gone by now: that must not block.
  ssize_t length = recvfrom(entry->state->socket, packet, sizeof packet, MSG_DONTWAIT,
                            reinterpret_cast<sockaddr*>(&from), &from_length);
  if (length < 0) {
    if (errno != EAGAIN) perror("recvfrom");
    return true;
  }
  auto bytes = static_cast<size_t>(length);
  if (snmp_dump_packet != 0) {
    char sender[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &from.sin_addr, sender, sizeof sender);
    vxprintf(vxcatgets(Catd, kMessageSet, 66, "recieved %d bytes from %s:\n"),
             static_cast<int>(length), sender);
    dump_packet(packet, static_cast<int32_t>(length));
  }
  std::unique_ptr<snmp_pdu, decltype(&snmp_free_pdu)> pdu(snmp_pdu_create(0), &snmp_free_pdu);
  if (pdu == nullptr) return true;  // no memory: the datagram is lost, as on the network
  pdu->address = from;
  switch (snmp_parse_packet(entry->session, pdu.get(), {packet, bytes})) {
    case SnmpParse::kDone:
      return deliver(entry, pdu.get());
    case SnmpParse::kDropped:
      return true;
    case SnmpParse::kMangled:
      vxfprintf(stderr, "%s", vxcatgets(Catd, kMessageSet, 67, "Mangled packet\n"));
      return false;
  }
  return true;
}

// Sends `request` once more and waits twice as long for it. A message that cannot
// be built any more skips this turn; the sends still count towards the end.
void repeat_request(const session_entry* entry, request_record* request) {
  uint8_t packet[kSnmpMaxPacket];
  ++request->retries;
  request->timeout = request->timeout > LONG_MAX / 2 ? LONG_MAX : 2 * request->timeout;
  int32_t length = build_message(entry->session, request->pdu, packet);
  if (length != 0) {
    if (snmp_dump_packet != 0) dump_packet(packet, length);
    send_message(entry->state->socket, request->pdu, packet, length);
  }
  start_waiting(request, now());
}

// False when a callback closed a session.
bool expire_requests(session_entry* entry, const timeval& time) {
  request_record* next = nullptr;
  for (request_record* request = entry->state->requests; request != nullptr; request = next) {
    next = request->next;
    if (!timercmp(&request->expires_at, &time, <)) continue;
    if (request->retries < entry->session->retries) {
      repeat_request(entry, request);
      continue;
    }
    // Off the list first: the callback may close the session.
    unlink_request(entry->state, request);
    unsigned closed_before = closed_sessions;
    call_back(kSnmpTimedOut, entry->session, request->pdu);
    free_request(request);
    if (closed_sessions != closed_before) return false;
  }
  return true;
}

// The earliest expiry over all pending requests; null when there are none.
const timeval* earliest_expiry() {
  const timeval* earliest = nullptr;
  for (const session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    for (const request_record* request = entry->state->requests; request != nullptr;
         request = request->next) {
      if (earliest == nullptr || timercmp(&request->expires_at, earliest, <)) {
        earliest = &request->expires_at;
      }
    }
  }
  return earliest;
}

}  // namespace

snmp_session* snmp_open(const snmp_session* session_template) {
  seed_request_ids();
  session_entry* entry = add_entry(session_template);
  if (entry == nullptr) {
    snmp_errno = kSnmpErrGeneric;
    return nullptr;
  }
  snmp_session* session = entry->session;
  if (!complete_session(session, session_template)) {
    snmp_errno = kSnmpErrGeneric;
  } else if (open_socket(entry->state) && resolve_peer(session, &entry->state->peer_address) &&
             bind_socket(session, entry->state->socket)) {
    return session;
  }
  snmp_close(session);
  return nullptr;
}

int snmp_close(snmp_session* session) {
  session_entry* entry = find_entry(session);
  if (entry == nullptr) return 0;
  session_entry** link = &Sessions;
  while (*link != entry) link = &(*link)->next;
  *link = entry->next;
  if (delivering == entry) delivering = nullptr;
  free_entry(entry);
  ++closed_sessions;
  return 1;
}

int32_t snmp_send(snmp_session* session, snmp_pdu* pdu) {
  session_entry* entry = find_entry(session);
  if (entry == nullptr) return 0;
  if (!complete_pdu(pdu)) {
    snmp_errno = kSnmpErrGeneric;
    return 0;
  }
  if (!complete_address(pdu, entry->state->peer_address)) return 0;

  uint8_t packet[kSnmpMaxPacket];
  int32_t length = build_message(session, pdu, packet);
  if (length == 0) return 0;
  if (snmp_dump_packet != 0) dump_packet(packet, length);

  // The record is made before anything is sent, so that what was sent is always
  // remembered.
  c_unique_ptr<request_record> request;
  if (is_request(pdu->command)) {
    request.reset(static_cast<request_record*>(calloc(1, sizeof(request_record))));
    if (request == nullptr) {
      snmp_errno = kSnmpErrGeneric;
      return 0;
    }
  }
  timeval sent_at = now();
  if (!send_message(entry->state->socket, pdu, packet, length)) return 0;
  if (request != nullptr) {
    request->request_id = pdu->request_id;
    request->retries = 1;
    request->timeout = std::max(session->timeout, 0L);
    request->pdu = pdu;
    start_waiting(request.get(), sent_at);
    request->next = entry->state->requests;
    entry->state->requests = request.release();
  }
  return low_32_bits(pdu->request_id);
}

void snmp_read(const vx_fd_set* readable) {
  for (session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    if (VX_FD_ISSET(entry->state->socket, readable) && !read_session(entry)) return;
  }
}

int snmp_select_info(int* count, vx_fd_set* readable, timeval* timeout, int* block) {
  int sessions = 0;
  for (const session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    ++sessions;
    int socket = entry->state->socket;
    if (socket >= kVxFdSetSize) continue;  // the set cannot name it, and the wait ends there
    *count = std::max(*count, socket + 1);
    VX_FD_SET(socket, readable);
  }
  const timeval* earliest = earliest_expiry();
  if (earliest == nullptr) return sessions;

  timeval left{};
  timeval time = now();
  if (timercmp(earliest, &time, >)) timersub(earliest, &time, &left);
  if (*block == 1 || timercmp(&left, timeout, <)) {
    *timeout = left;
    *block = 0;
  }
  return sessions;
}

void snmp_timeout() {
  timeval time = now();
  for (session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    if (!expire_requests(entry, time)) return;
  }
}

const char* api_errors(int index) {
  switch (index) {
    case kSnmpErrUnknownSession + 4:
      return vxcatgets(Catd, kMessageSet, 68, "Unknown session");
    case kSnmpErrUnknownHost + 4:
      return vxcatgets(Catd, kMessageSet, 69, "Unknown host");
    case kSnmpErrBadLocalPort + 4:
      return vxcatgets(Catd, kMessageSet, 70, "Invalid local port");
    default:
      return vxcatgets(Catd, kMessageSet, 59, "Unknown Error");
  }
}

const char* api_errstring(int /*code*/) {
  return vxcatgets(Catd, kMessageSet, 59, "Unknown Error");
}
