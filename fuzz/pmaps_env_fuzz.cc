// The environment variable that hands the port cache on: of any text exactly its whole
// groups are read, up to the first that is none.
#undef NDEBUG
#include <algorithm>
#include <cassert>
#include <cstring>
#include <string>

#include "rpc/portmap/pmap_cache.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  pmap mapping = {};
  const char* at = text.c_str();
  while (const char* next = pmap_parse_group(at, &mapping)) {
    assert(*at == '{' && next[-1] == '}' && std::count(at, next, ',') >= 3);
    at = next;
  }
  const char* end = at;
  for (char separator : {',', ',', ',', '}'}) {
    if (*at != '{' || end == nullptr) return 0;
    end = strchr(end + 1, separator);
  }
  assert(end == nullptr);
  return 0;
}
