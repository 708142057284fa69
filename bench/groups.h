// The groups of measurements, one for each source. Each takes the directory of the build.
#pragma once

#include <string>

void measure_command(const std::string& build);
void measure_snmp(const std::string& build);
void measure_rpc(const std::string& build);
void measure_streams(const std::string& build);
void measure_text(const std::string& build);
void measure_conversion(const std::string& build);
void measure_xdr(const std::string& build);
void measure_hosts(const std::string& build);
