// Error records: what went wrong, as a number and a text, kept per thread.
//
// A routine that fails sets the calling thread's current record and returns a pointer to
// it; callers print it, copy it or pass it on. A null record means no error to print. The
// number of a record is
//
//   type * 10000 + severity * 1000 + code
//
// where err_tables.h has the types. Severity 1 is printed as "notice", 2 as "warning", any
// other as "error".
//
// Thread safety: every operation may be called from any thread and works on that thread's
// state. The caller guards records of its own. Every err_set, err_setall, err_setstr and
// err_dup changes the current record of its thread; the text lasts until that thread's
// next err_setstr, err_dup or brix_strerror.
#pragma once

#include <cstdint>

#include "liblocal/base/liblvarp.h"

/// Makes an error of `type` the current record and returns it. For a severity of 0 and a
/// null `text` it uses those of the type's table, or 0 and "Unknown error" when no table
/// has the code. `text` is not copied.
vx_error_record* err_setall(int32_t type, int32_t severity, int32_t code, const char* text);

/// err_setall with the severity (thousands) and the code (the rest below 1000) of `number`,
/// and the type's text. err_set(1, ENOMEM) reports a system error.
vx_error_record* err_set(int32_t type, int32_t number);

/// err_set with a formatted text, cut to 18431 bytes. Returns null, with nothing set, for a
/// null `format` and without memory.
[[gnu::format(printf, 3, 4)]] vx_error_record* err_setstr(int32_t type, int32_t number,
                                                          const char* format, ...);

/// Makes the current record equal to `record`, with a copy of its text (a null one becomes
/// empty), and returns it. `record` may be the current record. Returns null, with nothing
/// set, for a null `record` and without memory.
vx_error_record* err_dup(const vx_error_record* record);

/// Copies number and text of `source` (null: 0 and no text) into `destination`, whose old
/// text is not freed. The caller frees the new one with err_free. Waits for memory. Returns
/// the number.
int32_t err_dup2(const vx_error_record* source, vx_error_record* destination);

/// Frees the text of a record that owns it and sets it to null. `record` may be null.
void err_free(vx_error_record* record);

/// Copies `record` into the thread's saved record and returns that. Frees the text that was
/// saved before; with `Debug` above 0 a debug line shows it.
vx_error_record* err_save(const vx_error_record* record);

/// Makes `saved` the current record, as err_dup does, and frees its text. Returns the
/// current record; null when `saved` is null or has no text.
vx_error_record* err_restore(vx_error_record* saved);

/// err_restore for a record of the caller that owns its text.
vx_error_record* err_move_to_varp(vx_error_record* record);

/// Prints `record` with printerr: the type's name, the word for the severity and the text;
/// with `Debug` other than 0 also severity and number. The names of the types 1 to 9 are
/// known from the first err_setall on. A null record prints nothing.
void err_print(const vx_error_record* record);

/// While the thread accrues, puts `text` before the text accrued so far: "new->(old)".
/// printerr calls it with each message but notices and warnings. Drops a text that would
/// make the whole longer than 18432 bytes. Without memory it keeps the old text and writes
/// "Malloc failed." to standard error. Returns 0.
int err_accrue(const char* text);

/// Makes the thread accrue from now on. The text accrued so far becomes the current record,
/// of number -10001, and is dropped when `mode` is 1. Returns the record; null when there is
/// no such text.
vx_error_record* blow_err(int mode);

/// The system's text for the error number `error`, in UTF-8 and at most 1023 bytes. It lasts
/// until the thread's next call. Keeps `errno`.
const char* brix_strerror(int error);
