#include "snmp/snmp_rounds.h"

#include <unistd.h>

#include <cstdlib>

session_entry* Sessions = nullptr;
int snmp_errno = 0;

namespace {

int rounds = 0;                           // under way, one within the other
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

SnmpRound::SnmpRound() { ++rounds; }

SnmpRound::~SnmpRound() {
  if (--rounds > 0) return;
  for (session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    free_requests(&entry->state->requests, true);
  }
  free_closed_entries();
}

bool SnmpRound::is_under_way() { return rounds > 0; }

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
  if (entry == nullptr) {
    snmp_fail(kSnmpErrUnknownSession);
    return 0;
  }
  *link = entry->next;
  if (entry->state->socket != -1) close(entry->state->socket);
  entry->state->socket = -1;
  entry->next_closed = closed_entries;
  closed_entries = entry;
  if (!SnmpRound::is_under_way()) free_closed_entries();
  return 1;
}
