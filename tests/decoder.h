// What an independent decoder reads in packets.
#pragma once

#include <string>
#include <vector>

#include "tests/lab.h"

/// These fields of UDP packets to `port` as tshark reads them: a row for each packet, with
/// '|' between fields and ',' between the values of a field that comes several times.
inline std::string decoded(const std::vector<std::string>& packets, int port,
                           const std::vector<std::string>& fields) {
  lab::Command command;
  std::string script = "text2pcap -q -u 40000," + std::to_string(port) +
                       " - /run/capture && HOME=/run tshark -r /run/capture -T fields";
  for (const std::string& field : fields) script += " -e " + field;
  command.words = {"sh", "-c", script + " -E 'separator=|'"};
  for (const std::string& packet : packets) {
    command.input += "0000";  // the offset, at which a packet begins
    for (char byte : packet) command.input += " " + to_hex({&byte, 1});
    command.input += "\n";
  }
  return lab::run(command).out;
}
