// Message catalogs: the text of a user-visible message, by set and number.
//
// Every text is written at its call site as an English default, which an open catalog
// replaces. Texts are UTF-8.
//
// Message 264 of set 17 is the version of a catalog.
#pragma once

#include <cstdint>

/// The open message catalog; -1 while none is open. Callers pass it to
/// vxcatgets and do not change it.
extern int64_t Catd;

// The sets, each with the owner of its texts.
constexpr int32_t kRuntimeMessageSet = 17;  //!< The runtime, and some of the RPC engine.
constexpr int32_t kRpcMessageSet = 21;      //!< The RPC engine.
constexpr int32_t kCommandMessageSet = 41;  //!< The command and the SNMP engine.

/// The text of message `number` of `set`: the catalog's, or `default_text`
/// itself when no catalog is open or it holds no such message. Until _vxinit has
/// ended, only set 17, or number 264 of any set, is looked up. Keeps `errno`. The caller
/// must not free or change the result. Thread safe.
[[nodiscard, gnu::format_arg(4)]] const char* vxcatgets(int64_t catalog, int32_t set,
                                                        int32_t number, const char* default_text);

/// Opens no catalog and returns -1: that needs a language subdirectory, which is never set
/// (locales.h). Thread safe.
[[nodiscard]] int64_t vxcatopen(const char* name, int flags);

/// Closes a catalog. Returns the result of the platform's catclose.
int vxcatclose(int64_t catalog);
