// library_calls -f FILE: the floor of the whole command. Makes the calls of the C library
// that the command has to make, in its order and as often (the start, the options, the own
// name before each use, the host's names and addresses, the port mapper's answer, a socket
// for the program asked about, the file's lines, the boot record, the trap), and adds
// nothing.
#include <arpa/inet.h>
#include <limits.h>
#include <locale.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utmp.h>

static struct hostent entry;
static struct hostent* found;
static char names[8192];
static int error;

static char own[256];

static void look_up_own_name(void) {
  gethostbyname_r(own, &entry, names, sizeof names, &found, &error);
}

static void look_up_address(const struct in_addr* address) {
  struct hostent* ignored = NULL;
  struct hostent reverse;
  char text[1024];
  gethostbyaddr_r(address, sizeof *address, AF_INET, &reverse, text, sizeof text, &ignored, &error);
}

// This host's interfaces and what they are called, then its own addresses.
static void look_up_this_host(void) {
  int any = socket(AF_INET, SOCK_DGRAM, 0);
  struct ifreq records[64];
  struct ifconf list = {0};
  ioctl(any, SIOCGIFCONF, &list);
  list.ifc_req = records;
  ioctl(any, SIOCGIFCONF, &list);
  list.ifc_len = sizeof records;  // a list that fills its room may have been cut
  ioctl(any, SIOCGIFCONF, &list);
  for (size_t i = 0; i < (size_t)list.ifc_len / sizeof records[0]; ++i) {
    struct ifreq flags = records[i];
    ioctl(any, SIOCGIFFLAGS, &flags);
  }
  close(any);
  struct in_addr first;
  memcpy(&first, found->h_addr_list[0], sizeof first);
  for (size_t i = 0; i < (size_t)list.ifc_len / sizeof records[0]; ++i) {
    look_up_address(&((struct sockaddr_in*)&records[i].ifr_addr)->sin_addr);
  }
  look_up_address(&first);
}

static int bound_socket(void) {
  struct sockaddr_in any = {.sin_family = AF_INET};
  int endpoint = socket(AF_INET, SOCK_DGRAM, 0);
  bind(endpoint, (struct sockaddr*)&any, sizeof any);
  return endpoint;
}

// Sends `size` bytes to a port of 127.0.0.1.
static void send_to(int endpoint, int port, const void* bytes, size_t size) {
  struct sockaddr_in server = {.sin_family = AF_INET,
                               .sin_port = htons((uint16_t)port),
                               .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  sendto(endpoint, bytes, size, 0, (struct sockaddr*)&server, sizeof server);
}

static void ask_port_mapper(void) {
  // Transaction, call, RPC version, mapper, its version, look-up; two empty
  // credentials; program, version, protocol, no port.
  const uint32_t words[] = {1, 0, 2, 100000, 2, 3, 0, 0, 0, 0, 100122, 0, 17, 0};
  uint32_t call[14];
  for (int i = 0; i < 14; ++i) call[i] = htonl(words[i]);
  getpid();
  int endpoint = bound_socket();
  send_to(endpoint, 7938, call, sizeof call);
  struct pollfd readable = {endpoint, POLLIN, 0};
  poll(&readable, 1, 25000);
  recv(endpoint, call, sizeof call, MSG_DONTWAIT);
  close(endpoint);
}

int main(int argc, char** argv) {
  setlocale(LC_ALL, "");
  struct sigaction action = {.sa_handler = SIG_IGN};
  sigaction(SIGUSR2, &action, NULL);
  char origin[PATH_MAX];
  realpath(argv[0], origin);
  getuid(), geteuid(), getgid(), getegid();
  if (getopt(argc, argv, "f:") != 'f') return 2;
  FILE* file = fopen(optarg, "r");
  if (file == NULL) return 1;
  gethostname(own, sizeof own);
  look_up_own_name();
  if (found == NULL) return 1;
  look_up_own_name();
  look_up_this_host();
  for (const char* each = "vrd"; *each != '\0'; ++each) {  // switches of connections
    char name[] = "/kiv/debug/no_";
    name[sizeof name - 2] = *each;
    access(name, F_OK);
  }
  ask_port_mapper();
  getpid();
  close(bound_socket());
  char line[1024];
  while (fgets(line, sizeof line, file) != NULL) {
  }
  fclose(file);
  int endpoint = bound_socket();
  struct utmp boot = {.ut_type = BOOT_TIME};
  setutent();
  getutid(&boot);
  endutent();
  look_up_own_name();
  const char trap[65] = {0x30};
  send_to(endpoint, 162, trap, sizeof trap);
  close(endpoint);
  return 0;
}
