// What the platform answers, as a test wants it: the clock, the resolver, the interface
// requests and streams. A test program that links `stand_ins` has the time,
// gethostbyname_r, gethostbyaddr_r, ioctl and ungetc calls of its own objects and static
// libraries pass through here.
#pragma once

#include <atomic>
#include <cstdint>

namespace stand_ins {

extern std::atomic<int64_t> now;                    // what time answers; 0: the real time
extern std::atomic<int> names_asked;                // calls of the resolver, by name
extern std::atomic<bool> resolver_is_down;          // it knows nothing
extern std::atomic<unsigned long> refused_request;  // of ioctl; 0: none
extern std::atomic<int> refusal;                    // its errno
extern std::atomic<bool> no_push_back;              // ungetc has no memory

}  // namespace stand_ins
