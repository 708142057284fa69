#include "liblocal/messages/err_tables.h"

#include <cstdio>
#include <cstdlib>

#include "liblocal/messages/catgets.h"
#include "liblocal/threads/liblvarp.h"
#include "liblocal/threads/vx_once.h"
#include "liblocal/threads/xmalloc.h"

char* rpc_errlist[kRpcErrorCodes];

namespace {

struct CatalogText {
  int32_t number;
  const char* text;
};

constexpr CatalogText kRpcTexts[kRpcErrorCodes] = {
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

constexpr CatalogText kRapTexts[kRapErrorCodes] = {
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

constexpr int32_t kRapSeverities[kRapErrorCodes] = {1, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
                                                    5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
                                                    5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};

constexpr int32_t kJobsErrorCodes = 4;

// These have no catalog number.
constexpr const char* kJobsTexts[kJobsErrorCodes] = {
    "", "Invalid arguments", "Unable to find job record", "Invalid or NULL session channel"};

constexpr int32_t kJobsSeverities[kJobsErrorCodes] = {1, 4, 5, 4};

constexpr int32_t kGenericSeverities[] = {1, 5};

// Written once, under the once controls; freed by err_unsetall.
err_type types[kErrTypeSlots];
char* rap_errlist[kRapErrorCodes];
char* jobs_errlist[kJobsErrorCodes];
char* generic_errlist[2];  // the "Success" copy and the default text

vx_once_control tables_once;
vx_once_control rpc_once;

char* copy_of(const CatalogText& entry) {
  return xstrdup(vxcatgets(Catd, kRuntimeMessageSet, entry.number, entry.text));
}

// Part of every table's making, so here the texts get their release.
void build_rpc_errlist() {
  liblocal_set_release(LiblocalRelease::kErrorTables, err_unsetall);
  get_liblocal_p_varp();
  for (int32_t code = 0; code < kRpcErrorCodes; ++code)
    rpc_errlist[code] = copy_of(kRpcTexts[code]);
}

void build_tables() {
  generic_errlist[0] = xstrdup("Success");
  generic_errlist[1] = static_cast<char*>(xmalloc(kMessageSize));
  snprintf(generic_errlist[1], kMessageSize, "Unknown error");
  init_rpc_errlist();
  for (int32_t code = 0; code < kRapErrorCodes; ++code)
    rap_errlist[code] = copy_of(kRapTexts[code]);
  for (int32_t code = 0; code < kJobsErrorCodes; ++code) {
    jobs_errlist[code] = xstrdup(kJobsTexts[code]);
  }

  // The texts of system errors come from the platform, for every code.
  err_settype(kErrTypeSystem, 1, "SYSTEM", nullptr, nullptr);
  err_settype(kErrTypeRpc, kRpcErrorCodes - 1, "RPC", rpc_errlist, kRpcSeverities);
  err_settype(kErrTypeRap, kRapErrorCodes - 1, "RAP", rap_errlist, kRapSeverities);
  err_settype(4, 1, "WISS", generic_errlist, kGenericSeverities);
  err_settype(5, 1, "Vaultmere", generic_errlist, kGenericSeverities);
  err_settype(6, 1, "Jukebox", generic_errlist, kGenericSeverities);
  err_settype(7, 1, "File index", generic_errlist, kGenericSeverities);
  err_settype(8, 1, "Media DB", generic_errlist, kGenericSeverities);
  err_settype(kErrTypeJobs, kJobsErrorCodes - 1, "Jobs", jobs_errlist, kJobsSeverities);
}

template <size_t N>
void release(char* (&texts)[N]) {
  for (char*& text : texts) {
    free(text);
    text = nullptr;
  }
}

}  // namespace

void init_rpc_errlist() { vx_once(&rpc_once, build_rpc_errlist); }

void err_tables_init() { vx_once(&tables_once, build_tables); }

void err_settype(int32_t type, int32_t max_code, const char* name, const char* const* texts,
                 const int32_t* severities) {
  if (type < 0 || type >= kErrTypeSlots) return;
  err_type* slot = &types[type];
  snprintf(slot->name, sizeof slot->name, "%s", name);
  slot->max_code = max_code;
  slot->texts = texts;
  slot->severities = severities;
}

const err_type* err_type_of(int32_t type) {
  if (type < 1 || type >= kErrTypeSlots || types[type].max_code == 0) return nullptr;
  return &types[type];
}

const char* err_default_text() { return generic_errlist[1]; }

void err_unsetall() {
  release(rpc_errlist);
  release(rap_errlist);
  release(jobs_errlist);
  release(generic_errlist);
}
