// Error records: what went wrong, as a number and a text, kept per thread.
//
// A routine that fails sets the calling thread's current record and returns a
// pointer to it; callers print it, copy it or pass it on. A null record means no
// error to print. The number is
//
//   type * 10000 + severity * 1000 + code
//
// of an error type (err_tables.h). Severity 1 is called "notice", 2 "warning",
// any other "error".
//
// Thread safety: every operation may be called from any thread and works on that
// thread's state; a record of a caller is the caller's to guard. The current
// record changes with every err_set, err_setall, err_setstr and err_dup of its
// thread, and its text lasts until that thread's next err_setstr, err_dup or
// brix_strerror.
#pragma once

#include <cstdint>

#include "liblocal/base/liblvarp.h"

/// Makes an error of `type` the current record and returns it. A severity of 0
/// stands for the type's own, a null `text` for the type's text; `text` is not
/// copied. Where no table helps they are 0 and "Unknown error".
vx_error_record* err_setall(int32_t type, int32_t severity, int32_t code, const char* text);

/// err_setall with the severity (its thousands' digit) and the code (the rest
/// below 1000) of `number`, and the type's text. err_set(1, ENOMEM) reports a
/// system error.
vx_error_record* err_set(int32_t type, int32_t number);

/// err_set with a formatted text, cut to 18431 bytes. Returns null, with nothing
/// set, for a null `format` and when there is no memory for the thread's message.
[[gnu::format(printf, 3, 4)]] vx_error_record* err_setstr(int32_t type, int32_t number,
                                                          const char* format, ...);

/// Makes the current record equal to `record`, with a copy of its text (a null one
/// becomes empty). `record` may be the current record. Returns it; null, with
/// nothing set, for null and when there is no memory for the thread's message.
vx_error_record* err_dup(const vx_error_record* record);

/// Copies number and text of `source` (null: 0 and no text) into `destination`.
/// What `destination` held is not freed; its new text is the caller's, to be
/// given back with err_free. Waits for memory. Returns the number.
int32_t err_dup2(const vx_error_record* source, vx_error_record* destination);

/// Frees the text of a record that owns it. Null is allowed.
void err_free(vx_error_record* record);

/// Copies `record` into the thread's saved record and returns that. A text that
/// was saved before is freed; with `Debug` above 0 a debug line tells it.
vx_error_record* err_save(const vx_error_record* record);

/// Makes `saved` the current record, as err_dup, and frees its text. Returns the
/// current record; null when `saved` is null or has no text.
vx_error_record* err_restore(vx_error_record* saved);

/// err_restore for a record of the caller that owns its text.
vx_error_record* err_move_to_varp(vx_error_record* record);

/// Prints `record` with printerr: the type's name (when it is known: 1 to 9, from the first
/// err_setall on), the word for
/// the severity and the text; with `Debug` other than 0 also severity and number.
/// A null record prints nothing.
void err_print(const vx_error_record* record);

/// While the thread accrues, puts `text` before what was accrued: "new->(old)".
/// printerr calls it with each message but notices and warnings. A text that
/// would make the whole longer than 18432 bytes is dropped; without memory the old
/// text stays and standard error is told "Malloc failed.". Returns 0.
int err_accrue(const char* text);

/// Makes the thread accrue from now on. What it has accrued becomes the current
/// record, of number -10001, and is forgotten when `mode` is 1. Returns the
/// record; null when nothing was accrued.
vx_error_record* blow_err(int mode);

/// The system's text for the error number `error`, in UTF-8 and at most 1023
/// bytes, in a buffer of the calling thread. Keeps `errno`.
const char* brix_strerror(int error);
