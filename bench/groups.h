// The groups of measurements, one for each source.
#pragma once

void measure_snmp();
void measure_rpc();
void measure_streams();
void measure_text();
void measure_conversion();
void measure_xdr();
void measure_hosts();
