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
#include <sys/time.h>
#include <time.h>
#include <unistd.h>
#include <utmp.h>

static struct hostent entry, *found;
static char own[256], names[8192];
static int error;

static void look_up_own_name(void) {
  gethostbyname_r(own, &entry, names, sizeof names, &found, &error);
}

// An address's name, and how the address itself is written.
static void look_up_address(const void* address) {
  struct hostent reverse, *ignored;
  char text[1024];
  inet_ntop(AF_INET, address, text, sizeof text);
  gethostbyaddr_r(address, 4, AF_INET, &reverse, text, sizeof text, &ignored, &error);
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
  for (size_t i = 0; i < (size_t)list.ifc_len / sizeof records[0]; ++i) {
    look_up_address(&((struct sockaddr_in*)&records[i].ifr_addr)->sin_addr);
  }
  look_up_address(found->h_addr_list[0]);
}

static int bound_socket(void) {
  struct sockaddr_in any = {.sin_family = AF_INET};
  int endpoint = socket(AF_INET, SOCK_DGRAM, 0);
  bind(endpoint, (struct sockaddr*)&any, sizeof any);
  return endpoint;
}

// Sends `size` bytes to a port of 127.0.0.1.
static void send_to(int endpoint, uint16_t port, const void* bytes, size_t size) {
  struct sockaddr_in server = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {0}};
  sendto(endpoint, bytes, size, 0, (struct sockaddr*)&server, sizeof server);
}

static void ask_port_mapper(void) {
  // Of port mapper 100000, version 2: where program 100122, version 0, is over UDP.
  uint32_t call[14] = {1, 0, 2, 100000, 2, 3, 0, 0, 0, 0, 100122, 0, 17, 0};
  for (int i = 0; i < 14; ++i) call[i] = htonl(call[i]);
  struct timeval now;
  gettimeofday(&now, NULL);
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
  time(NULL);
  look_up_this_host();
  access("/kiv/debug/nowritev", F_OK);  // switches of connections
  access("/kiv/debug/noreadv", F_OK);
  access("/kiv/debug/nodelayeor", F_OK);
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
