#include "tests/machine.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace machine {
namespace {

// "ready" in the test machine, or why there is none.
std::string where() {
  const char* place = getenv("KIVTRAP_TEST_MACHINE");
  return place != nullptr ? place : "no test machine";
}

void check(bool ok, const std::string& what) {
  if (!ok) throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

bool skip_outside() {
  if (where() == "ready") return false;
  MachineTest::skip(where());
  return true;
}

bool skip_without_ports() {
  try {
    const UdpReceiver standard(111), station(162), own(7938);
    return false;
  } catch (const std::system_error& failure) {
    MachineTest::skip(std::string("no ports of a station: ") + failure.what());
    return true;
  }
}

bool has_users() { return seteuid(kUser) == 0 && seteuid(0) == 0; }

void write_file(const std::string& path, std::string_view text) {
  if (path.starts_with("/etc/") && where() != "ready") throw std::logic_error(path);
  // Not through a link of the test machine's /etc, behind which is the host's own file.
  int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  check(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
  close(file);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Outcome run(const Command& command) {
  std::vector<char*> argv;
  for (const std::string& word : command.words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  const int streams[] = {memfd_create("in", MFD_CLOEXEC), memfd_create("out", MFD_CLOEXEC),
                         memfd_create("err", MFD_CLOEXEC)};
  check(pwrite(streams[0], command.input.data(), command.input.size(), 0) >= 0, "input");
  const pid_t child = fork();
  check(child >= 0, "fork");
  if (child == 0) {
    for (int i = 0; i < 3; ++i) dup2(streams[i], i);
    for (const std::string& assignment : command.environment) {
      putenv(const_cast<char*>(assignment.c_str()));
    }
    if (command.user != 0 && (setgid(command.user) != 0 || setuid(command.user) != 0)) _exit(125);
    execvp(command.file.empty() ? argv[0] : command.file.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  check(waitpid(child, &status, 0) == child, "waitpid");
  std::string texts[3];
  for (int i = 0; i < 3; ++i) {
    texts[i] = read_file("/proc/self/fd/" + std::to_string(streams[i]));
    close(streams[i]);
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, texts[1], texts[2]};
}

UdpReceiver::UdpReceiver(uint16_t port) : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in own = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  check(::bind(socket_, reinterpret_cast<sockaddr*>(&own), sizeof own) == 0, "bind");
}

UdpReceiver::~UdpReceiver() { close(socket_); }

std::string UdpReceiver::receive_now() const {
  char datagram[65536];
  const ssize_t got = recv(socket_, datagram, sizeof datagram, MSG_DONTWAIT);
  return {datagram, static_cast<size_t>(std::max<ssize_t>(got, 0))};
}

uint16_t port_of(int socket) {
  sockaddr_in own{};
  socklen_t size = sizeof own;
  check(getsockname(socket, reinterpret_cast<sockaddr*>(&own), &size) == 0, "getsockname");
  return ntohs(own.sin_port);
}

}  // namespace machine

void MachineTest::skip(const std::string& reason) {
  if (getenv("CI") != nullptr) FAIL() << reason;
  GTEST_SKIP() << reason;
}

// Every test program's main: runs the tests in the test machine. A list of them needs none.
int main(int argc, char** argv) {
  sigset_t none;  // whatever starts the tests may block signals that they use
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const bool lists = argc > 1 && strcmp(argv[1], "--gtest_list_tests") == 0;
  if (getenv("KIVTRAP_TEST_MACHINE") == nullptr && !lists) {
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<char*> words = {const_cast<char*>(MACHINE_SH), self.data()};
    words.insert(words.end(), argv + 1, argv + argc + 1);
    execv(MACHINE_SH, words.data());
    perror(MACHINE_SH);
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

std::string from_hex(std::string_view blank_separated) {
  std::string digits(blank_separated);
  std::erase(digits, ' ');
  std::string bytes;
  for (size_t at = 0; at < digits.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

std::string to_hex(std::string_view bytes) {
  std::string digits;
  for (const char byte : bytes) {
    char two[3];
    snprintf(two, sizeof two, "%02hhX", byte);
    digits += two;
  }
  return digits;
}

std::string ber(int tag, const std::string& contents) {
  const auto length = static_cast<unsigned>(contents.size());
  std::string header = {static_cast<char>(tag), static_cast<char>(length)};
  if (length > 255) header.insert(1, 1, static_cast<char>(length >> 8));
  if (length > 127) header.insert(1, 1, length > 255 ? '\x82' : '\x81');
  return header + contents;
}
