#include "liblocal/messages/errinfo.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/err_tables.h"
#include "liblocal/messages/print.h"
#include "liblocal/text/i18n_printf.h"
#include "liblocal/text/utf8_convert.h"

namespace {

constexpr int32_t kTypeUnit = 10000;
constexpr int32_t kSeverityUnit = 1000;

constexpr int32_t kNotice = 1;
constexpr int32_t kWarning = 2;
constexpr int32_t kTransient = 3;  // a later attempt may do better
constexpr int32_t kFatal = 5;

int32_t severity_of(int32_t number) { return number / kSeverityUnit % 10; }
int32_t code_of(int32_t number) { return number % kSeverityUnit; }

int32_t system_severity(int32_t error) {
  switch (error) {
    case 0:
      return kNotice;
    case EINTR:
    case ENETDOWN:
    case ENETRESET:
    case ECONNRESET:
    case ETIMEDOUT:
      return kTransient;
    default:
      return kFatal;
  }
}

// Text and severity of an error in the tables.
struct Defaults {
  const char* text;  // null: the platform's
  int32_t severity;
};

Defaults defaults_of(int32_t type, int32_t code) {
  const err_type* entry = err_type_of(type);
  if (entry != nullptr && type == kErrTypeSystem) return {nullptr, system_severity(code)};
  if (entry == nullptr || code < 0 || code > entry->max_code) return {kErrDefaultText, 0};
  return {entry->texts[code], entry->severities[code]};
}

// Any argument is allowed: unsigned numbers wrap on overflow.
int32_t make_number(int32_t type, int32_t severity, int32_t code) {
  return static_cast<int32_t>(static_cast<uint32_t>(type) * kTypeUnit +
                              static_cast<uint32_t>(severity) * kSeverityUnit +
                              static_cast<uint32_t>(code));
}

// The thread's message buffer, of kMessageSize bytes; null without memory.
char* message_buffer() {
  liblocal_t_varp* block = get_liblocal_t_varp();
  if (block->message == nullptr) block->message = static_cast<char*>(malloc(kMessageSize));
  return block->message;
}

// Copies `text`, cut to fit, into the message buffer, which it may be itself.
void copy_message(const char* text, char* message) {
  size_t length = strnlen(text, kMessageSize - 1);
  memmove(message, text, length);
  message[length] = '\0';
}

const char* severity_word(int32_t severity) {
  switch (severity) {
    case kNotice:
      return vxcatgets(Catd, kRuntimeMessageSet, 276, "notice");
    case kWarning:
      return vxcatgets(Catd, kRuntimeMessageSet, 277, "warning");
    default:
      return vxcatgets(Catd, kRuntimeMessageSet, 278, "error");
  }
}

constexpr size_t kDetailSize = 80;

// Writes the end of a printed record into `detail`, of kDetailSize bytes: severity and
// number, or nothing with `Debug` at 0.
void describe(int32_t number, bool type_is_named, char* detail) {
  *detail = '\0';
  if (Debug == 0 || number == 0) return;
  int32_t severity = severity_of(number);
  int32_t code = code_of(number);
  if (type_is_named) {
    snprintf(detail, kDetailSize, " (severity %d, number %d)", severity, code);
  } else if (number >= 0) {
    snprintf(detail, kDetailSize, " (type %d, severity %d, number %d)", number / kTypeUnit,
             severity, code);
  } else {
    snprintf(detail, kDetailSize, " (number %d)", number);
  }
}

}  // namespace

vx_error_record* err_setall(int32_t type, int32_t severity, int32_t code, const char* text) {
  err_tables_init();
  const Defaults defaults = defaults_of(type, code);
  if (text == nullptr) text = defaults.text != nullptr ? defaults.text : brix_strerror(code);
  if (severity == 0) severity = defaults.severity;
  vx_error_record* current = &get_liblocal_t_varp()->current_error;
  *current = {make_number(type, severity, code), text};
  return current;
}

vx_error_record* err_set(int32_t type, int32_t number) {
  return err_setall(type, severity_of(number), code_of(number), nullptr);
}

vx_error_record* err_setstr(int32_t type, int32_t number, const char* format, ...) {
  char* message = message_buffer();
  if (format == nullptr || message == nullptr) return nullptr;
  char* area = nullptr;
  va_list arguments;
  va_start(arguments, format);
  i18n_vsprintf(nullptr, &area, format, arguments);
  va_end(arguments);
  c_unique_ptr<char> text(area);  // an argument may be the message that this replaces
  if (text == nullptr) return nullptr;
  copy_message(text.get(), message);
  return err_setall(type, severity_of(number), code_of(number), message);
}

vx_error_record* err_dup(const vx_error_record* record) {
  char* message = message_buffer();
  if (record == nullptr || message == nullptr) return nullptr;
  copy_message(record->text != nullptr ? record->text : "", message);
  vx_error_record* current = &get_liblocal_t_varp()->current_error;
  *current = {record->number, message};
  return current;
}

int32_t err_dup2(const vx_error_record* source, vx_error_record* destination) {
  if (source == nullptr) {
    *destination = {0, nullptr};
  } else {
    *destination = {source->number, xstrdup(source->text)};
  }
  return destination->number;
}

void err_free(vx_error_record* record) {
  if (record == nullptr) return;
  free(const_cast<char*>(record->text));
  record->text = nullptr;
}

vx_error_record* err_save(const vx_error_record* record) {
  vx_error_record* saved = &get_liblocal_t_varp()->saved_error;
  vx_error_record copy;
  err_dup2(record, &copy);  // first, as `record` may be the saved one
  if (saved->text != nullptr && Debug > 0) {
    debugprintf("err_save: overwriting old tmperr <%s>\n", saved->text);
  }
  err_free(saved);
  *saved = copy;
  return saved;
}

vx_error_record* err_restore(vx_error_record* saved) {
  if (saved == nullptr || saved->text == nullptr) return nullptr;
  vx_error_record* current = err_dup(saved);
  err_free(saved);
  return current;
}

vx_error_record* err_move_to_varp(vx_error_record* record) { return err_restore(record); }

void err_print(const vx_error_record* record) {
  if (record == nullptr) return;
  int32_t type = record->number / kTypeUnit;
  const err_type* entry = type <= kErrTypeJobs ? err_type_of(type) : nullptr;
  char detail[kDetailSize];
  describe(record->number, entry != nullptr, detail);
  const char* word = severity_word(severity_of(record->number));
  if (entry != nullptr) {
    printerr(vxcatgets(Catd, kRuntimeMessageSet, 280, "%s %s: %s%s\n"), entry->name, word,
             record->text, detail);
  } else {
    printerr(vxcatgets(Catd, kRuntimeMessageSet, 279, "%s, %s%s\n"), word, record->text, detail);
  }
}

int err_accrue(const char* text) {
  liblocal_t_varp* block = get_liblocal_t_varp();
  if (text == nullptr || block->accruing == 0) return 0;
  constexpr size_t kJoinSize = 9;  // bytes counted for "->(", ")" and terminators
  const char* old = block->accrued_text;
  size_t size = strlen(text) + (old != nullptr ? strlen(old) : 0) + kJoinSize;
  if (old != nullptr && size > kMessageSize) {
    if (Debug > 8) debugprintf("Dropping error string %s\n", text);
    return 0;
  }
  char* accrued = static_cast<char*>(malloc(size));
  if (accrued == nullptr) {
    fputs("Malloc failed.\n", stderr);
    return 0;
  }
  snprintf(accrued, size, old != nullptr ? "%s->(%s)" : "%s", text, old);
  free(block->accrued_text);
  block->accrued_text = accrued;
  return 0;
}

vx_error_record* blow_err(int mode) {
  liblocal_t_varp* block = get_liblocal_t_varp();
  if (block->accruing == 0) {
    print_set_accrual_hook(err_accrue);
    block->accruing = 1;
  }
  if (block->accrued_text == nullptr) return nullptr;
  vx_error_record* record = err_setstr(-1, -1, "%s", block->accrued_text);
  if (mode == 1) {
    free(block->accrued_text);
    block->accrued_text = nullptr;
  }
  return record;
}

const char* brix_strerror(int error) {
  int saved_errno = errno;
  char* text = get_liblocal_t_varp()->strerror_text;
  char system_text[kErrorTextSize];
  const char* found = strerror_r(error, system_text, sizeof system_text);
  if (*found != '\0') {
    utf8_mbs(text, found, kErrorTextSize);
  } else {
    snprintf(text, kErrorTextSize, vxcatgets(Catd, kRuntimeMessageSet, 149, "Error %d\n"), error);
  }
  errno = saved_errno;
  return text;
}
