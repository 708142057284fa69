// The lab: a private user, network, mount, UTS and IPC namespace for everything
// that touches the network, the host's name, /etc or the boot record.
//
// A program enters it once, at its start, and stays: it is then root of a machine
// of its own, with loopback up, an empty /run, the names below and nothing to
// reach outside. What it writes to /etc, /run and new directories of / disappears
// with it, but /etc holds links to the host's files: remove one before writing it.
// Where the host forbids such namespaces the program goes on outside, and every
// LabTest skips with the reason (and fails when CI is set).
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

constexpr char kHostName[] = "lab-host";  // 192.0.2.1 by the lab's hosts file
constexpr unsigned kUser = 1000;          // a user and group without rights

/// Enters the lab, unless the process (or one it descends from) is in one. Runs
/// the program again inside and ends with its exit status, so it returns only
/// inside, or where the lab cannot be made. Call it first in main.
void enter(char** argv);

/// Empty inside the lab, else the reason why there is none.
const std::string& why_outside();

/// False where the host lends the lab no users but root.
bool has_users();

/// Writes a whole file; throws when it cannot.
void write_file(const std::string& path, std::string_view text);
std::string read_file(const std::string& path);

/// Puts one boot record of that time into the accounting file.
constexpr char kBootRecord[] = "/run/utmp";
void set_boot_time(time_t time);
void set_host_name(const std::string& name);

/// A program to run and its surroundings.
struct Command {
  std::vector<std::string> words;              // program and arguments
  std::string input;                           // standard input, at most 64 KiB
  std::vector<std::string> environment;        // NAME=value, added to the own one
  std::optional<std::pair<int, int>> refused;  // a system call and the errno it fails with
  std::function<void(pid_t)> before_input;     // runs once the program is started
  unsigned user = 0;                           // the user and group that it runs as
  std::string file;                            // the program, when not found by words[0]
};

struct Outcome {
  int status = -1;  // exit status, or 128 + the signal that ended it
  std::string out;
  std::string err;
};

/// Runs `command` to its end, or kills it after 200 seconds.
Outcome run(const Command& command);

/// A UDP socket that keeps what arrives.
class UdpReceiver {
 public:
  explicit UdpReceiver(uint16_t port, const std::string& address = "127.0.0.1");
  ~UdpReceiver();
  UdpReceiver(const UdpReceiver&) = delete;
  UdpReceiver& operator=(const UdpReceiver&) = delete;

  /// The next datagram, waiting up to `milliseconds` for it; who sent it, in `*from`.
  std::optional<std::string> receive(int milliseconds = 5000, sockaddr_in* from = nullptr);
  /// What is there without waiting. On loopback a datagram is delivered before
  /// its send returns, so after a sender's end nothing can still be under way.
  std::optional<std::string> receive_now() { return receive(0); }
  int socket() const { return socket_; }
  uint16_t port() const;

 private:
  int socket_;
};

/// A second machine: a network namespace whose one interface is tied to one of this
/// machine's (10.9.0.1/24) by a cable.
class SecondHost {
 public:
  /// The machine has these addresses of 10.9.0.0/24.
  explicit SecondHost(const std::vector<std::string>& addresses);
  ~SecondHost();
  SecondHost(const SecondHost&) = delete;
  SecondHost& operator=(const SecondHost&) = delete;

  /// Runs `work` in this thread as on the second machine. Sockets opened and programs
  /// started there stay there.
  void inside(const std::function<void()>& work) const;
};

}  // namespace lab

/// A test that needs the lab.
class LabTest : public testing::Test {
 protected:
  void SetUp() override;
  /// Skips the running test because the lab lacks something; in CI it fails.
  static void skip(const std::string& reason);
};

/// The bytes that hex digits stand for; blanks between them are ignored.
std::string from_hex(std::string_view digits);
std::string to_hex(std::string_view bytes);
