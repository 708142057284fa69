// Tests in the test machine, the private machine that machine.sh makes, and what they use there.
// Every test program enters it at its start; where there can be none it goes on outside. A
// test that needs more than loopback is a MachineTest, or asks skip_outside.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <string_view>
#include <vector>

namespace machine {

constexpr char kHostName[] = "testhost";  // 192.0.2.1 by the test machine's hosts file
constexpr unsigned kUser = 1000;          // a user and group without rights

/// Skips the running test outside the test machine; true then.
bool skip_outside();
/// Skips it where the ports of a station, 111, 162 and 7938 of loopback, cannot be had.
bool skip_without_ports();
/// Whether the process can become another user and root again.
bool has_users();

/// Writes a whole file. As all of the test machine it throws what the system refuses.
void write_file(const std::string& path, std::string_view text);
std::string read_file(const std::string& path);

/// A program to run and its surroundings.
struct Command {
  std::vector<std::string> words;             // program and arguments
  std::string input = {};                     // standard input
  std::vector<std::string> environment = {};  // NAME=value, added to the own one
  unsigned user = 0;                          // the user and group that it runs as
  std::string file = {};                      // the program, when not found by words[0]
};

struct Outcome {
  int status = -1;  // exit status; -1: a signal ended it
  std::string out, err;
};

Outcome run(const Command& command);  // to its end

/// The port of a bound socket.
uint16_t port_of(int socket);

/// A UDP socket of 127.0.0.1 that keeps what arrives.
class UdpReceiver {
 public:
  explicit UdpReceiver(uint16_t port);
  ~UdpReceiver();
  UdpReceiver(const UdpReceiver&) = delete;
  /// The next datagram, else "": on loopback it is delivered before its send returns.
  std::string receive_now() const;
  int socket() const { return socket_; }
  uint16_t port() const { return port_of(socket_); }

 private:
  const int socket_;
};

}  // namespace machine

/// A test that needs the test machine's host name, /etc, /run or new directories of /.
class MachineTest : public testing::Test {
 public:
  /// Skips the running test because something is lacking; in CI it fails.
  static void skip(const std::string& reason);

 protected:
  void SetUp() override { machine::skip_outside(); }
};

/// The bytes that hex digits denote; blanks are ignored.
std::string from_hex(std::string_view digits);
/// The upper-case hex digits of `bytes`.
std::string to_hex(std::string_view bytes);
/// A BER item of up to 65535 bytes of contents, its length in the shortest form.
std::string ber(int tag, const std::string& contents);
