#include "liblocal/messages/answers.h"

#include <cstring>

#include "liblocal/messages/catgets.h"

namespace {

bool begins_with(const char* answer, const char* letter) {
  return strncmp(answer, letter, strlen(letter)) == 0;
}

int is_one_of(const char* answer, const char* lower, const char* upper) {
  if (answer == nullptr) return 0;
  return begins_with(answer, lower) || begins_with(answer, upper) ? 1 : 0;
}

}  // namespace

int is_no(const char* answer) {
  return is_one_of(answer, vxcatgets(Catd, kRuntimeMessageSet, 10, "n"), i18n_char_no());
}

int is_quit(const char* answer) {
  return is_one_of(answer, vxcatgets(Catd, kRuntimeMessageSet, 12, "q"),
                   vxcatgets(Catd, kRuntimeMessageSet, 13, "Q"));
}

int is_rename(const char* answer) {
  return is_one_of(answer, vxcatgets(Catd, kRuntimeMessageSet, 14, "r"), i18n_char_rename());
}

int is_yes(const char* answer) {
  return is_one_of(answer, vxcatgets(Catd, kRuntimeMessageSet, 16, "y"), i18n_char_yes());
}

const char* i18n_char_no() { return vxcatgets(Catd, kRuntimeMessageSet, 11, "N"); }

const char* i18n_char_rename() { return vxcatgets(Catd, kRuntimeMessageSet, 15, "R"); }

const char* i18n_char_yes() { return vxcatgets(Catd, kRuntimeMessageSet, 17, "Y"); }
