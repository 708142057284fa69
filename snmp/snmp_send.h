// Sending a packet, which a first send and a repetition do alike. Inside the session
// layer only; programs include snmp_api.h. Not thread safe.
#pragma once

#include <cstdint>

#include "snmp/snmp_api.h"

/// Two hex digits and a blank for every byte, 16 to a line, on standard output.
void snmp_print_packet(const uint8_t* packet, int32_t length);

/// Builds the message of `pdu` in `packet`, which holds kSnmpMaxPacket bytes, and
/// dumps it when that is asked for. Returns its length, or 0 after a report.
[[nodiscard]] int32_t snmp_prepare_packet(const snmp_session* session, const snmp_pdu* pdu,
                                          uint8_t* packet);

/// Sends `packet` to the address of `pdu`. False after a report.
bool snmp_send_packet(int socket, const snmp_pdu* pdu, const uint8_t* packet, int32_t length);

/// Lets `request` wait for its time-out from `sent_at` on.
void snmp_start_waiting(request_record* request, const timeval& sent_at);
