// The environment, in UTF-8: its values are in the locale's codeset, the program's
// texts are UTF-8.
//
// Thread safety: reading is safe from any thread; changing is for a time when no
// other thread uses the environment, as the platform's putenv.
#pragma once

/// The value of the environment variable `name`; null when there is none. A value
/// of ASCII bytes is the platform's own text. Any other is converted into a new
/// text of at most 18431 bytes that is never freed, since callers keep it; so read
/// a variable once. Without memory for that: null, with ENOMEM in `errno` and
/// printed.
[[nodiscard]] const char* vxgetenv(const char* name);

/// Sets a variable from `text`, "NAME=value", which then belongs to the environment
/// when it is all ASCII; any other text is converted into a new one. Returns 0, also
/// for null, which changes nothing; the platform's putenv result; -1 without memory,
/// with ENOMEM in `errno` and printed.
int vxputenv(char* text);

/// Sets the variable `name` to `value` or, with `prepend` other than 0 and a value
/// there already, to "`value`:old value". Both are copied. Returns 1 when the
/// variable was set, else 0.
int add_to_environment(const char* name, const char* value, int prepend);
