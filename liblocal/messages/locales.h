// The locale of the process, and what the catalogs and the converters know of it.
//
// Thread safety: init_locales runs before any other thread exists, or alone; the
// getters are for any thread after it.
#pragma once

#include <cstddef>

#include "liblocal/text/codesets.h"

/// Bytes of a normalised locale name, its NUL included.
constexpr size_t kLocaleNameSize = 128;

/// Puts the process into the locale of its environment: finds and normalises the name
/// of the messages locale, which two debug lines report from level 1 on, and selects
/// `locale` ("" is the environment's) for all categories. The application's name plays no part. May
/// run again. Returns the platform's answer to the last selection, null when there is no such
/// locale.
const char* init_locales(const char* name, const char* locale);

/// The language subdirectory, without which vxcatopen opens no catalog: null, for this
/// system has texts of one language.
[[nodiscard]] const char* get_lang_subdir();

/// The neutral locale ("C") and the user's locale; null while unset. They stay owned
/// here, until the next init_locales.
[[nodiscard]] const char* get_rap_locale();
[[nodiscard]] const char* get_user_locale();

/// Writes the system's own name of the messages locale `name` into `buffer`. Leaves
/// `buffer` as it is, and returns false, for the names that need none ("C" and the
/// American English ones) and for those of kLocaleNameSize bytes and more.
bool normalise_locale(const char* name, char (&buffer)[kLocaleNameSize]);
