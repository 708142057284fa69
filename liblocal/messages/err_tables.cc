#include "liblocal/messages/err_tables.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "liblocal/base/liblvarp.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/messages/catgets.h"

char* rpc_errlist[kRpcErrorCodes];

namespace {

struct CatalogText {
  int32_t number;
  const char* text;
};

constexpr CatalogText kRpcTexts[] = {
    {224, "Success"},
    {225, "RPC cannot encode arguments"},
    {226, "Can't decode result"},
    {1015,
     "RPC send operation failed.  A network connection could not be established with the host."},
    {1016,
     "RPC receive operation failed.  A network connection could not be established with the "
     "host."},
    {229, "Timed out"},
    {230, "Incompatible versions of RPC"},
    {231, "Authentication error"},
    {232, "Program unavailable"},
    {233, "RPC program or version mismatch"},
    {234, "RPC server is unavailable"},
    {235, "Server can't decode arguments"},
    {236, "Remote system error"},
    {237, "Unknown host"},
    {238, "Port mapper failure"},
    {239, "Program not registered"},
    {240, "Failed (unspecified error)"},
    {241, "Unknown protocol"},
    {242, "Call interrupted"},
    {243, "Remote address unknown"},
    {244, "TLI error"},
    {245, "Broadcasting not supported"},
    {246, "Name to address translation failed"},
    {247, "Recv got uderr indication"},
    {248, "Async rpc in progress"},
    {249, "Stale remote asynchronous handle"},
    {250, "Invalid handle"},
    {251, "Cancelled"},
};

constexpr int32_t kRpcSeverities[kRpcErrorCodes] = {1, 5, 5, 4, 4, 3, 4, 4, 4, 5, 5, 5, 4, 5,
                                                    4, 4, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};

constexpr int32_t kRapErrorCodes = 33;

constexpr CatalogText kRapTexts[] = {
    {191, ""},
    {192, "Operation not supported"},
    {193, "Bad getids arguments"},
    {194, "Bad create arguments"},
    {195, "Bad delete arguments"},
    {196, "Bad update arguments"},
    {197, "Bad retrieve arguments"},
    {198, "Bad or missing hostname"},
    {199, "Bad or missing version number"},
    {200, "Bad or missing program number"},
    {201, "Bad or missing attribute name"},
    {202, "No such type"},
    {203, "Resource does not exist"},
    {204, "Permission denied"},
    {205, "Create permission denied"},
    {206, "Unknown area"},
    {207, "Unknown master"},
    {208, "system error"},
    {209, "sequence number mismatch"},
    {210, "Resource already exists"},
    {211, "Resource database failure"},
    {212, "Resource parse error"},
    {213, "Illegal values selection"},
    {214, "Illegal numeric value"},
    {215, "Too many values"},
    {216, "Read-only attribute"},
    {217, "No such attribute in this type"},
    {218, "No type attribute specified"},
    {219, "No such host"},
    {220, "No such netgroup"},
    {221, "No such attribute"},
    {222, "Bad resource database pointer"},
    {223, "Resource database busy"},
};

// A notice for code 0, an error for any other.
constexpr auto kPlainSeverities = [] {
  std::array<int32_t, kRapErrorCodes> severities;
  severities.fill(5);
  severities[0] = 1;
  return severities;
}();

// These have no catalog number.
constexpr const char* kJobsTexts[] = {"", "Invalid arguments", "Unable to find job record",
                                      "Invalid or NULL session channel"};
constexpr int32_t kJobsSeverities[] = {1, 4, 5, 4};
constexpr const char* kGenericTexts[] = {"Success", kErrDefaultText};

constinit err_type types[kErrTypeSlots] = {};
char* rap_errlist[kRapErrorCodes];

vx_once_control tables_once;
vx_once_control rpc_once;

template <size_t N>
void build(char* (&list)[N], const CatalogText (&entries)[N]) {
  for (size_t code = 0; code < N; ++code) {
    const auto& [number, text] = entries[code];
    list[code] = xstrdup(vxcatgets(Catd, kRuntimeMessageSet, number, text));
  }
}

// Frees what was built and puts the default texts in its place, for late readers.
template <size_t N>
void release(char* (&list)[N], const CatalogText (&entries)[N]) {
  for (size_t code = 0; code < N; ++code) {
    char* built = std::exchange(list[code], const_cast<char*>(entries[code].text));
    if (built != entries[code].text) free(built);
  }
}

// Every table is made after this one, so the release is set here.
void build_rpc_errlist() {
  liblocal_add_release(err_unsetall);
  build(rpc_errlist, kRpcTexts);
}

void build_tables() {
  init_rpc_errlist();
  build(rap_errlist, kRapTexts);
  // The texts of system errors come from the platform, for every code.
  err_settype(kErrTypeSystem, 1, "SYSTEM", nullptr, nullptr);
  err_settype(kErrTypeRpc, kRpcErrorCodes - 1, "RPC", rpc_errlist, kRpcSeverities);
  const int32_t* severities = kPlainSeverities.data();
  err_settype(kErrTypeRap, kRapErrorCodes - 1, "RAP", rap_errlist, severities);
  err_settype(4, 1, "WISS", kGenericTexts, severities);
  err_settype(5, 1, "Vaultmere", kGenericTexts, severities);
  err_settype(6, 1, "Jukebox", kGenericTexts, severities);
  err_settype(7, 1, "File index", kGenericTexts, severities);
  err_settype(8, 1, "Media DB", kGenericTexts, severities);
  err_settype(kErrTypeJobs, std::size(kJobsTexts) - 1, "Jobs", kJobsTexts, kJobsSeverities);
}

}  // namespace

void init_rpc_errlist() { vx_once(&rpc_once, build_rpc_errlist); }

void err_tables_init() { vx_once(&tables_once, build_tables); }

void err_settype(int32_t type, int32_t max_code, const char* name, const char* const* texts,
                 const int32_t* severities) {
  if (type < 0 || type >= kErrTypeSlots) return;
  err_type* slot = &types[type];
  snprintf(slot->name, sizeof slot->name, "%s", name);
  slot->texts = texts;
  slot->severities = severities;
  slot->max_code = max_code;  // last: another thread's err_print may be looking
}

const err_type* err_type_of(int32_t type) {
  if (type < 1 || type >= kErrTypeSlots || types[type].max_code == 0) return nullptr;
  return &types[type];
}

void err_unsetall() {
  release(rpc_errlist, kRpcTexts);
  release(rap_errlist, kRapTexts);
}
