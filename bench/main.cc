// kivtrap_bench BUILD_DIR GROUP...: measures groups of paths, each path beside its floor. The
// status is 1 when one took longer than its budget allows. The first conversion of text fixes
// the process's codeset, so groups for several locales take one process each.
#include <clocale>
#include <cstring>

#include "bench/compare.h"
#include "bench/groups.h"
#include "liblocal/text/codesets.h"

int main(int argc, char** argv) {
  const struct {
    const char* name;
    void (*measure)(const std::string& build);
  } groups[] = {
      {"command", measure_command}, {"snmp", measure_snmp},   {"rpc", measure_rpc},
      {"streams", measure_streams}, {"text", measure_text},   {"conversion", measure_conversion},
      {"xdr", measure_xdr},         {"hosts", measure_hosts},
  };
  setlocale(LC_ALL, "");
  learn_codeset();
  for (int i = 2; i < argc; ++i) {
    for (const auto& group : groups) {
      if (strcmp(group.name, argv[i]) == 0) group.measure(argv[1]);
    }
  }
  return over_budget ? 1 : 0;
}
