// The locale of the process.
//
// Thread safety: init_locales is for a time when no other thread exists or uses the
// locale; the other operations are thread safe.
#pragma once

#include <cstddef>

#include "liblocal/text/codesets.h"

/// Bytes of a normalised locale name, its NUL included.
constexpr size_t kLocaleNameSize = 128;

/// Puts the process into the locale of its environment: finds and normalises the name of
/// the messages locale, which two debug lines report from level 1 on, and selects `locale`
/// ("" is the environment's) for all categories. The application's `name` has no effect.
/// May be called again. Returns the platform's answer to the last selection, null when
/// there is no such locale.
const char* init_locales(const char* name, const char* locale);

/// The language subdirectory, without which vxcatopen opens no catalog. It is always null:
/// the texts of this system are in one language.
[[nodiscard]] const char* get_lang_subdir();

/// The name "C", from both, whatever the environment says; null before init_locales. The
/// texts last until its next call.
[[nodiscard]] const char* get_rap_locale();
[[nodiscard]] const char* get_user_locale();

/// Writes the system's own name of the messages locale `name` into `buffer`. Leaves
/// `buffer` as it is, and returns false, for the names that need none ("C" and the
/// American English ones) and for those of kLocaleNameSize bytes and more.
bool normalise_locale(const char* name, char (&buffer)[kLocaleNameSize]);
