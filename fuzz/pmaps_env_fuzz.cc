// The environment variable that hands the port cache on: of any text exactly its whole
// groups are read, and the cache they make reads back the same.
#undef NDEBUG
#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "rpc/client/rpcvarp.h"
#include "rpc/portmap/pmap_cache.h"

namespace {

constexpr char kVariable[] = "KIVENV_PMAPS";

using Entry = std::array<unsigned long, 4>;  // program, version, protocol, port

// The cache of a thread that begins with `value`, newest entry first.
std::vector<Entry> cache_from(const char* value) {
  rpc_t_varp* thread = get_rpc_t_varp();
  cleanup_mappers(thread);
  thread->port_cache_read = 0;
  // setenv would keep every value it was ever given.
  static std::string assignment;
  assignment = std::string(kVariable) + "=" + value;
  putenv(assignment.data());
  (void)pmap_cached_port(0, 0, 0);
  std::vector<Entry> entries;
  for (const rpc_port_entry* each = thread->port_cache; each != nullptr; each = each->next) {
    entries.push_back({each->program, each->version, each->protocol, each->port});
  }
  return entries;
}

// As long as the text can be cut into groups at all, each yields one entry.
size_t count_groups(const std::string& text) {
  size_t count = 0;
  for (size_t at = 0; at < text.size() && text[at] == '{'; ++count) {
    for (char separator : {',', ',', ',', '}'}) {
      at = text.find(separator, at + 1);
      if (at == std::string::npos) return count;
    }
    ++at;
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  // Other bytes than ASCII are a matter of the environment's own conversion.
  for (char& byte : text) byte &= 0x7F;
  text.erase(std::find(text.begin(), text.end(), '\0'), text.end());
  std::vector<Entry> entries = cache_from(text.c_str());
  const size_t groups = count_groups(text);
  assert(entries.size() <= groups && entries.empty() == (groups == 0));
  std::string again;
  for (auto each = entries.rbegin(); each != entries.rend(); ++each) {
    char separator = '{';
    for (unsigned long number : *each) {
      again += separator + std::to_string(static_cast<long>(number));
      separator = ',';
    }
    again += '}';
  }
  assert(cache_from(again.c_str()) == entries);
  return 0;
}
