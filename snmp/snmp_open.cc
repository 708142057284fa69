// Opening a session.
#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/text/vxprint.h"
#include "snmp/snmp_rounds.h"

long Reqid = 0;

namespace {

constexpr int32_t kRetries = 4;
constexpr long kTimeout = 1000000;  // microseconds
constexpr uint16_t kSnmpPort = 161;
constexpr char kCommunity[] = "public";

void seed_request_ids() {
  if (Reqid != 0) return;
  timeval time = snmp_now();
  srand(static_cast<unsigned>(time.tv_sec) ^ static_cast<unsigned>(time.tv_usec));
  Reqid = rand();
}

// A new entry at the head of Sessions; null without memory.
session_entry* add_entry(const snmp_session* session_template) {
  c_unique_ptr<session_entry> entry(c_new<session_entry>());
  c_unique_ptr<session_state> state(c_new<session_state>());
  c_unique_ptr<snmp_session> session(c_new<snmp_session>());
  if (entry == nullptr || state == nullptr || session == nullptr) return nullptr;
  state->socket = -1;
  *session = *session_template;
  session->community = nullptr;
  session->peer_name = nullptr;
  entry->state = state.release();
  entry->session = session.release();
  entry->next = Sessions;
  Sessions = entry.get();
  return entry.release();
}

// Gives the copy its own texts and puts the defaults where the template asks for
// them. False without memory.
bool complete_session(snmp_session* session, const snmp_session* session_template) {
  if (session_template->peer_name != nullptr) {
    session->peer_name = strdup(session_template->peer_name);
    if (session->peer_name == nullptr) return snmp_fail(kSnmpErrGeneric);
  }
  const void* community = session_template->community;
  if (session->community_length == 0) {
    community = kCommunity;
    session->community_length = sizeof kCommunity - 1;
  }
  auto bytes = static_cast<size_t>(session->community_length);
  session->community = static_cast<uint8_t*>(malloc(bytes));
  if (session->community == nullptr) return snmp_fail(kSnmpErrGeneric);
  memcpy(session->community, community, bytes);
  if (session->retries == kSnmpDefaultRetries) session->retries = kRetries;
  if (session->timeout == kSnmpDefaultTimeout) session->timeout = kTimeout;
  return true;
}

bool open_socket(session_state* state) {
  state->socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (state->socket != -1) return true;
  perror("socket");
  return snmp_fail(kSnmpErrGeneric);
}

in_port_t peer_port(const snmp_session* session) {
  if (session->remote_port != 0) return htons(session->remote_port);
  const servent* service = vx_ts_getservbyname("snmp", "udp");
  return service != nullptr ? static_cast<in_port_t>(service->s_port) : htons(kSnmpPort);
}

bool set_peer(const snmp_session* session, sockaddr_in* peer) {
  if (session->peer_name == nullptr) return true;
  if (!snmp_find_host(session->peer_name, &peer->sin_addr)) return false;
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
  return snmp_fail(kSnmpErrBadLocalPort);
}

}  // namespace

bool snmp_find_host(const char* name, in_addr* address) {
  address->s_addr = inet_addr(name);
  if (address->s_addr != INADDR_NONE) return true;
  const hostent* host = vx_ts_gethostbyname(name);
  if (host == nullptr) {
    vxfprintf(stderr, vxcatgets(Catd, kCommandMessageSet, 23, "unknown host: %s\n"), name);
    return snmp_fail(kSnmpErrUnknownHost);
  }
  memcpy(address, host->h_addr_list[0], sizeof *address);
  return true;
}

snmp_session* snmp_open(const snmp_session* session_template) {
  seed_request_ids();
  session_entry* entry = add_entry(session_template);
  if (entry == nullptr) {
    snmp_fail(kSnmpErrGeneric);
    return nullptr;
  }
  snmp_session* session = entry->session;
  session_state* state = entry->state;
  if (complete_session(session, session_template) && open_socket(state) &&
      set_peer(session, &state->peer_address) && bind_socket(session, state->socket)) {
    return session;
  }
  snmp_close(session);
  return nullptr;
}
