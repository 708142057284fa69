#include "liblocal/messages/catgets.h"
#include "snmp/snmp_api.h"

const char* api_errors(int index) {
  switch (index) {
    case kSnmpErrUnknownSession + 4:
      return vxcatgets(Catd, kCommandMessageSet, 68, "Unknown session");
    case kSnmpErrUnknownHost + 4:
      return vxcatgets(Catd, kCommandMessageSet, 69, "Unknown host");
    case kSnmpErrBadLocalPort + 4:
      return vxcatgets(Catd, kCommandMessageSet, 70, "Invalid local port");
    default:
      return vxcatgets(Catd, kCommandMessageSet, 59, "Unknown Error");
  }
}

const char* api_errstring(int /*code*/) {
  return vxcatgets(Catd, kCommandMessageSet, 59, "Unknown Error");
}
