// What the platform answers, as a test wants it: the clock, the resolver, the interfaces,
// streams and the codeset. A test program that links `stand_ins` has the time,
// gethostbyname_r, ioctl, ungetc and nl_langinfo calls of its own objects and static libraries
// pass through here.
#pragma once

#include <net/if.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace stand_ins {

extern std::atomic<int64_t> now;            // what time answers; 0: the real time
extern std::atomic<int> names_asked;        // calls of the resolver, by name
extern std::atomic<bool> resolver_is_down;  // it knows nothing
extern std::atomic<bool> no_push_back;      // ungetc has no memory
extern std::atomic<const char*> codeset;    // of nl_langinfo; null: the locale's

// Interfaces instead of the machine's (null), each named by its flags, or by -errno of
// asking for these.
extern std::atomic<const std::vector<ifreq>*> interfaces;
std::vector<ifreq> made_up(const std::string& words);   // flags, address and family of each
extern std::atomic<int> counting_error, listing_error;  // errno of asking for them; 0: none
extern std::atomic<int> room_asked;                     // bytes of the last list asked for

}  // namespace stand_ins
