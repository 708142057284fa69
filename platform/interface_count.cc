#include "platform/interface_count.h"

#include <net/if.h>
#include <sys/ioctl.h>

int interface_count(int socket) {
  ifconf request{};  // without a buffer Linux answers with the bytes it would need
  if (ioctl(socket, SIOCGIFCONF, &request) < 0) return -1;
  return request.ifc_len / static_cast<int>(sizeof(ifreq));
}
