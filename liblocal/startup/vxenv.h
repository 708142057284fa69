// The environment in UTF-8: its values are in the locale's codeset, the program's texts are
// in UTF-8.
//
// Thread safety: as the platform's getenv and putenv. Reading is safe from any thread,
// unless another one changes the environment.
#pragma once

/// The value of the environment variable `name`; null when there is none. For a value of
/// ASCII bytes this is the platform's own text. Any other is converted into a new text of
/// at most 18431 bytes, which is never freed because callers keep it; so read a variable
/// once. Without memory returns null, sets `errno` to ENOMEM and prints its text.
[[nodiscard]] const char* vxgetenv(const char* name);

/// Sets a variable from `text`, "NAME=value". An ASCII text becomes a part of the
/// environment; any other is converted into a new one. Returns the result of putenv, or 0
/// for null, which changes nothing. Without memory returns -1, sets `errno` to ENOMEM and
/// prints its text.
int vxputenv(char* text);

/// Sets the variable `name` to `value`, or to "`value`:old value" when `prepend` is not 0
/// and there is an old value. Copies both texts; equal assignments share one copy, which is
/// never freed. Returns 1 when the variable was set, else 0.
int add_to_environment(const char* name, const char* value, int prepend);
