#include "tests/lab.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utmp.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace lab {
namespace {

constexpr char kMarker[] = "KIVTRAP_LAB";  // "new": namespaces are there; "ready": all is
constexpr unsigned kLongestRun = 200;      // seconds

std::string reason_outside;

void check(bool ok, const std::string& what) {
  if (!ok) throw std::system_error(errno, std::generic_category(), what);
}

// The user ids of the namespace: all that the parent may give, or only its own.
void map_ids(pid_t child) {
  std::string proc = "/proc/" + std::to_string(child);
  for (bool group : {false, true}) {
    std::string file = group ? "/gid_map" : "/uid_map";
    unsigned id = group ? getegid() : geteuid();
    try {
      write_file(proc + file, "0 0 65536");
    } catch (const std::system_error&) {
      if (group) write_file(proc + "/setgroups", "deny");
      write_file(proc + file, "0 " + std::to_string(id) + " 1");
    }
  }
}

int exit_status(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

// Runs this program again in new namespaces and ends with its status. Returns
// when that is impossible. A plain fork would not do: the thread sanitizer runs a
// thread of its own, and no process with threads may change its user namespace.
void run_again_in_namespaces(char** argv) {
  int go[2];
  check(pipe2(go, O_CLOEXEC) == 0, "pipe");
  setenv(kMarker, "new", 1);
  long flags = CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC | SIGCHLD;
  long child = syscall(SYS_clone, flags, nullptr, nullptr, nullptr, 0);
  if (child == 0) {
    char ready = 0;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (read(go[0], &ready, 1) == 1) execv("/proc/self/exe", argv);
    _exit(127);
  }
  unsetenv(kMarker);
  check(child > 0, "clone");
  map_ids(static_cast<pid_t>(child));  // without them the child waits until it goes with us
  check(write(go[1], "", 1) == 1, "write");
  int status = 0;
  while (waitpid(static_cast<pid_t>(child), &status, 0) < 0 && errno == EINTR) {
  }
  exit(exit_status(status));
}

void bind(const fs::path& from, const fs::path& to) {
  fs::create_directory(to);
  check(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
        "mount " + to.string());
}

// An /etc of our own: links to the host's files, and the lab's instead of some.
void fill_etc(const fs::path& root) {
  bind("/etc", root / "host-etc");
  fs::create_directory(root / "etc");
  for (const fs::directory_entry& entry : fs::directory_iterator("/etc")) {
    fs::path name = entry.path().filename();
    fs::create_symlink("/host-etc" / name, root / "etc" / name);
  }
  const std::pair<const char*, const char*> own_files[] = {
      {"hosts",
       "127.0.0.1 localhost manager\n"
       "192.0.2.1 lab-host\n"
       "10.9.0.1 lab-cable\n"
       "10.9.0.2 station\n"},
      {"services", "sunrpc 111/tcp portmapper\nsunrpc 111/udp portmapper\nsnmp 161/udp\n"},
      {"nsswitch.conf", "hosts: files\nservices: files\n"},
      {"host.conf", "multi on\n"},  // all lines of a name
      {"resolv.conf", ""}};
  for (const auto& [name, text] : own_files) {
    fs::remove(root / "etc" / name);
    write_file(root / "etc" / name, text);
  }
}

// Changes to a root directory in memory: the host's directories, but an /etc and an
// empty /run of our own, and room for new ones.
void change_root() {
  const fs::path root = "/run";
  const fs::path here = fs::current_path();
  check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount /");
  check(mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=755") == 0, "mount tmpfs");
  fill_etc(root);
  fs::create_directory(root / "run");
  for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
    fs::path name = entry.path().filename();
    if (name == "etc" || name == "run") continue;
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), root / name);
    } else if (entry.is_directory()) {
      bind(entry.path(), root / name);
    }
  }
  fs::current_path(root);
  check(syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
  check(umount2(".", MNT_DETACH) == 0, "umount");
  fs::current_path(here);
}

void bring_up_loopback() {
  int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  check(any >= 0, "socket");
  ifreq request{};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  check(ioctl(any, SIOCSIFFLAGS, &request) == 0, "lo up");
  close(any);
}

void furnish() {
  change_root();
  bring_up_loopback();
  set_host_name(kHostName);
  timespec now{};
  timespec up{};
  clock_gettime(CLOCK_REALTIME, &now);
  clock_gettime(CLOCK_BOOTTIME, &up);
  set_boot_time(now.tv_sec - up.tv_sec);
}

// What was written to a file without a name, which goes.
std::string take(int file) {
  std::string text = read_file("/proc/self/fd/" + std::to_string(file));
  close(file);
  return text;
}

// Makes a system call of this process fail with `error`, as on a system that has run out
// of what it asks for.
void refuse(int call, int error) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  sock_fprog program = {std::size(filter), filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    _exit(126);
  }
}

// In the child, between fork and exec.
[[noreturn]] void become(const Command& command, const int (&streams)[3],
                         const std::vector<char*>& argv) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  alarm(kLongestRun);
  for (int i = 0; i < 3; ++i) dup2(streams[i], i);
  for (const std::string& assignment : command.environment) {
    putenv(const_cast<char*>(assignment.c_str()));
  }
  if (command.refused) refuse(command.refused->first, command.refused->second);
  if (command.user != 0 && (setgid(command.user) != 0 || setuid(command.user) != 0)) _exit(125);
  execvp(command.file.empty() ? argv[0] : command.file.c_str(), argv.data());
  _exit(127);
}

}  // namespace

void enter(char** argv) {
  const char* marker = getenv(kMarker);
  if (marker != nullptr && strcmp(marker, "ready") == 0) return;
  try {
    if (marker == nullptr) run_again_in_namespaces(argv);
    furnish();
    setenv(kMarker, "ready", 1);
  } catch (const std::exception& failure) {
    reason_outside = std::string("no private network here: ") + failure.what();
    // Half a lab is none: on with the host's own files would be a surprise.
    if (marker != nullptr) {
      fprintf(stderr, "%s\n", reason_outside.c_str());
      exit(1);
    }
  }
}

const std::string& why_outside() { return reason_outside; }

bool has_users() {
  unsigned inside = 0, outside = 0, count = 0;
  std::istringstream(read_file("/proc/self/uid_map")) >> inside >> outside >> count;
  return why_outside().empty() && inside + count > kUser;
}

void write_file(const std::string& path, std::string_view text) {
  // Not through a link of the lab's /etc, behind which is the host's own file.
  int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  check(file >= 0, path);
  check(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
  close(file);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void set_boot_time(time_t time) {
  utmp record{};
  record.ut_type = BOOT_TIME;
  record.ut_tv.tv_sec = static_cast<int32_t>(time);
  write_file(kBootRecord, {reinterpret_cast<const char*>(&record), sizeof record});
}

void set_host_name(const std::string& name) {
  check(sethostname(name.data(), name.size()) == 0, "sethostname");
}

Outcome run(const Command& command) {
  std::vector<char*> argv;
  for (const std::string& word : command.words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  int in[2];
  const int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
  check(out >= 0 && err >= 0 && pipe2(in, O_CLOEXEC) == 0, "streams");
  pid_t child = fork();
  check(child >= 0, "fork");
  if (child == 0) become(command, {in[0], out, err}, argv);
  if (command.before_input) command.before_input(child);
  // The other end is open here, too: a program that has ended leaves the input unread.
  check(write(in[1], command.input.data(), command.input.size()) >= 0, "write");
  close(in[0]);
  close(in[1]);
  int status = 0;
  check(waitpid(child, &status, 0) == child, "waitpid");
  return {exit_status(status), take(out), take(err)};
}

UdpReceiver::UdpReceiver(uint16_t port, const std::string& address)
    : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(port);
  own.sin_addr.s_addr = inet_addr(address.c_str());
  check(::bind(socket_, reinterpret_cast<sockaddr*>(&own), sizeof own) == 0, "bind");
}

UdpReceiver::~UdpReceiver() { close(socket_); }

std::optional<std::string> UdpReceiver::receive(int milliseconds, sockaddr_in* from) {
  pollfd readable = {socket_, POLLIN, 0};
  if (poll(&readable, 1, milliseconds) != 1) return std::nullopt;
  std::string datagram(65536, '\0');
  socklen_t size = sizeof *from;
  ssize_t got = recvfrom(socket_, datagram.data(), datagram.size(), 0,
                         reinterpret_cast<sockaddr*>(from), &size);
  check(got >= 0, "recvfrom");
  datagram.resize(static_cast<size_t>(got));
  return datagram;
}

uint16_t UdpReceiver::port() const {
  sockaddr_in own{};
  socklen_t size = sizeof own;
  check(getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size) == 0, "getsockname");
  return ntohs(own.sin_port);
}

SecondHost::SecondHost(const std::vector<std::string>& addresses) {
  std::string script =
      "set -e\n"
      "ip netns add second\n"
      "ip link add cable type veth peer name far netns second\n"
      "ip address add 10.9.0.1/24 dev cable\n"
      "ip link set cable up\n"
      "nsenter --net=/run/netns/second ip -batch - <<END\n"
      "link set lo up\n"
      "link set far up\n";
  for (const std::string& address : addresses) script += "address add " + address + "/24 dev far\n";
  check(system(script.c_str()) == 0, script);
}

SecondHost::~SecondHost() {
  [[maybe_unused]] int status = system("ip link delete cable; ip netns delete second");
}

void SecondHost::inside(const std::function<void()>& work) const {
  const int here = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  const int there = open("/run/netns/second", O_RDONLY | O_CLOEXEC);
  check(setns(there, CLONE_NEWNET) == 0, "setns");
  work();
  check(setns(here, CLONE_NEWNET) == 0, "setns");
  close(there);
  close(here);
}

}  // namespace lab

void LabTest::SetUp() {
  if (!lab::why_outside().empty()) skip(lab::why_outside());
}

void LabTest::skip(const std::string& reason) {
  if (getenv("CI") != nullptr) FAIL() << reason;
  GTEST_SKIP() << reason;
}

std::string from_hex(std::string_view digits) {
  std::string packed(digits);
  std::erase(packed, ' ');
  std::string bytes;
  for (size_t i = 0; i + 1 < packed.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(packed.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::string to_hex(std::string_view bytes) {
  std::string digits;
  for (char byte : bytes) {
    for (int digit : {byte >> 4 & 15, byte & 15}) digits += "0123456789ABCDEF"[digit];
  }
  return digits;
}
