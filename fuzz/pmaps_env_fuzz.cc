// The environment variable that hands the port cache on: of any text exactly its whole groups
// are read, up to the first that is none.
#include <fnmatch.h>

#include "fuzz/harness.h"
#include "rpc/portmap/pmap_cache.h"

void check_input(std::string_view input) {
  const std::string text(input);
  const char* at = text.c_str();
  pmap mapping = {};
  while (const char* next = pmap_parse_group(at, &mapping)) {
    assert(fnmatch("{*,*,*,*}", std::string(at, next).c_str(), 0) == 0);
    at = next;
  }
  assert(fnmatch("{*,*,*,*}*", at, 0) != 0);
}
