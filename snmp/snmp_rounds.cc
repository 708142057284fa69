#include "snmp/snmp_rounds.h"

#include <unistd.h>

#include <cstdlib>

session_entry* Sessions = nullptr;
int snmp_errno = 0;

namespace {

// A callback that reads again for every message that it gets would otherwise use as
// much stack as a stranger likes to send messages. A round takes some 5 KiB of it, a
// synchronous request inside a callback 8 KiB more.
constexpr int kMaxRounds = 16;

int rounds = 0;                           // running, each inside the one before
session_entry* closed_entries = nullptr;  // closed since the outermost round began

session_entry** find_link(const snmp_session* session) {
  session_entry** link = &Sessions;
  while (*link != nullptr && (*link)->session != session) link = &(*link)->next;
  return link;
}

void free_requests(request_record** link, bool only_busy) {
  while (request_record* request = *link) {
    if (only_busy && !request->busy) {
      link = &request->next;
      continue;
    }
    *link = request->next;
    snmp_free_pdu(request->pdu);
    free(request);
  }
}

void free_closed_entries() {
  while (session_entry* entry = closed_entries) {
    closed_entries = entry->next_closed;
    free_requests(&entry->state->requests, false);
    free(entry->session->community);
    free(entry->session->peer_name);
    free(entry->session);
    free(entry->state);
    free(entry);
  }
}

}  // namespace

session_entry* snmp_find_entry(const snmp_session* session) { return *find_link(session); }

bool snmp_is_too_deep() { return rounds == kMaxRounds; }

bool snmp_begin_round() {
  if (snmp_is_too_deep()) return false;
  ++rounds;
  return true;
}

void snmp_end_round() {
  if (--rounds > 0) return;
  for (session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    free_requests(&entry->state->requests, true);
  }
  free_closed_entries();
}

int snmp_call_back(int operation, snmp_session* session, snmp_pdu* pdu) {
  if (session->callback == nullptr) return 0;
  return session->callback(operation, session, snmp_low_32_bits(pdu->request_id), pdu,
                           session->callback_arg);
}

bool snmp_fail(int code) {
  snmp_errno = code;
  return false;
}

int snmp_close(snmp_session* session) {
  session_entry** link = find_link(session);
  session_entry* entry = *link;
  if (entry == nullptr) return snmp_fail(kSnmpErrUnknownSession);
  *link = entry->next;
  if (entry->state->socket != -1) close(entry->state->socket);
  entry->state->socket = -1;
  entry->next_closed = closed_entries;
  closed_entries = entry;
  if (rounds == 0) free_closed_entries();
  return 1;
}
