#include "liblocal/startup/vxenv.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/text_sizes.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/print.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/utf8_convert.h"

namespace {

// A text that add_to_environment has handed to the environment. It is never freed, because
// the environment keeps pointing at it.
struct Assignment {
  char* text;
  Assignment* next;
};

std::atomic<vx_mutex*> list_mutex;
Assignment* assignments;  // newest first; guarded by list_mutex

// "name=value" or "name=value:old", from malloc; null without memory.
c_unique_ptr<char> make_assignment(const char* name, const char* value, const char* old) {
  size_t size = strlen(name) + strlen(value) + (old != nullptr ? strlen(old) : 0) + 3;
  c_unique_ptr<char> text(static_cast<char*>(malloc(size)));
  if (text == nullptr) return nullptr;
  snprintf(text.get(), size, "%s=%s%s%s", name, value, old != nullptr ? ":" : "",
           old != nullptr ? old : "");
  return text;
}

// The listed text that equals `text`, which is added when there is none.
char* listed(c_unique_ptr<char> text) {
  VxMutexLock lock(vx_mutex_made_once(&list_mutex));
  for (Assignment* each = assignments; each != nullptr; each = each->next) {
    if (strcmp(each->text, text.get()) == 0) return each->text;
  }
  auto* added = static_cast<Assignment*>(xmalloc(sizeof(Assignment)));
  *added = {text.release(), assignments};
  assignments = added;
  return added->text;
}

// An area for a converted text, of kMessageSize bytes, that is never freed. Without
// memory prints the error and returns null.
char* new_area() {
  char* area = static_cast<char*>(malloc(kMessageSize));
  if (area == nullptr) {
    printerr("%s\n", brix_strerror(ENOMEM));
    errno = ENOMEM;  // printing may have changed it
  }
  return area;
}

}  // namespace

const char* vxgetenv(const char* name) {
  const char* value = getenv(name);
  if (value == nullptr || is_ascii_text(value)) return value;
  char* converted = new_area();
  if (converted != nullptr) utf8_mbs(converted, value, kMessageSize);
  return converted;
}

int vxputenv(char* text) {
  if (text == nullptr) return 0;
  if (is_ascii_text(text)) return putenv(text);
  char* converted = new_area();
  if (converted == nullptr) return -1;
  ansi_mbs(converted, text, kMessageSize);
  return putenv(converted);
}

int add_to_environment(const char* name, const char* value, int prepend) {
  if (name == nullptr || value == nullptr) return 0;
  const char* old = prepend != 0 ? vxgetenv(name) : nullptr;
  c_unique_ptr<char> converted(old != getenv(name) ? const_cast<char*>(old) : nullptr);
  c_unique_ptr<char> text = make_assignment(name, value, old);
  if (text == nullptr) return 0;
  return vxputenv(listed(std::move(text))) == 0 ? 1 : 0;
}
