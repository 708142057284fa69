// library_calls FILE: what the C library takes of the whole command's cost. Makes each
// call that the command cannot do without once (the locale, the file's line, the own
// host's address, the boot record, the port mapper's answer, the trap) and adds nothing.
#include <arpa/inet.h>
#include <locale.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utmp.h>

// Sends `size` bytes to a port of 127.0.0.1. Returns the socket.
static int send_to(int port, const void* bytes, size_t size) {
  struct sockaddr_in server = {.sin_family = AF_INET,
                               .sin_port = htons((uint16_t)port),
                               .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  int endpoint = socket(AF_INET, SOCK_DGRAM, 0);
  sendto(endpoint, bytes, size, 0, (struct sockaddr*)&server, sizeof server);
  return endpoint;
}

static void ask_port_mapper(void) {
  // Transaction, call, RPC version, mapper, its version, look-up; two empty
  // credentials; program, version, protocol, no port.
  const uint32_t words[] = {1, 0, 2, 100000, 2, 3, 0, 0, 0, 0, 100122, 0, 17, 0};
  uint32_t call[14];
  for (int i = 0; i < 14; ++i) call[i] = htonl(words[i]);
  int endpoint = send_to(7938, call, sizeof call);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(endpoint, &readable);
  struct timeval limit = {25, 0};
  select(endpoint + 1, &readable, NULL, NULL, &limit);
  recv(endpoint, call, sizeof call, MSG_DONTWAIT);
  close(endpoint);
}

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  setlocale(LC_ALL, "");
  char own[256];
  gethostname(own, sizeof own);
  struct hostent entry;
  struct hostent* found = NULL;
  static char names[8192];
  int error = 0;
  gethostbyname_r(own, &entry, names, sizeof names, &found, &error);
  FILE* file = fopen(argv[1], "r");
  char line[1024];
  if (file == NULL || fgets(line, sizeof line, file) == NULL) return 1;
  fclose(file);
  struct utmp boot = {.ut_type = BOOT_TIME};
  setutent();
  getutid(&boot);
  endutent();
  ask_port_mapper();
  const char trap[65] = {0x30};
  send_to(162, trap, sizeof trap);
  return 0;
}
