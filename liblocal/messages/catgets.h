// Message catalogs: the text of a user-visible message, by set and number.
//
// Every text is written at its call site as an English default; a catalog, when
// one is open, replaces it. Texts are UTF-8.
//
// Message 264 of set 17 marks the version of a catalog.
#pragma once

#include <cstdint>

/// The open message catalog; -1 while none is open. Callers pass it to
/// vxcatgets and never change it.
extern int64_t Catd;

// The sets, by whose texts they hold.
constexpr int32_t kRuntimeMessageSet = 17;  ///< the runtime, and some of the RPC engine
constexpr int32_t kRpcMessageSet = 21;      ///< the RPC engine
constexpr int32_t kCommandMessageSet = 41;  ///< the command and the SNMP engine

/// The text of message `number` of `set`: the catalog's, or `default_text`
/// itself when no catalog is open or it holds no such message. Until _vxinit has
/// ended, only set 17 and number 264 are looked up. Keeps `errno`. The caller neither
/// frees nor changes the result. Thread safe.
[[nodiscard, gnu::format_arg(4)]] const char* vxcatgets(int64_t catalog, int32_t set,
                                                        int32_t number, const char* default_text);

/// Opens the catalog `name` ("vaultmre.cat" for null and "kiv"; ".cat" is appended to a
/// name without '.') with the platform's catopen and `flags`, along its search path
/// when the name has no '/'. Only while a language subdirectory is set (locales.h).
/// Returns its descriptor, or -1: none found, or of another version, as debug lines tell
/// from level 1 on. Give it back with vxcatclose. Thread safe.
[[nodiscard]] int64_t vxcatopen(const char* name, int flags);

/// Closes a catalog. Returns the result of the platform's catclose.
int vxcatclose(int64_t catalog);
