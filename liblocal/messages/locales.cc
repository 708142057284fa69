#include "liblocal/messages/locales.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/messages/debug.h"
#include "liblocal/text/codesets.h"
#include "liblocal/text/text_view.h"

namespace {

c_unique_ptr<char> rap_locale;
c_unique_ptr<char> user_locale;
char locale_name[kLocaleNameSize];  // the messages locale by this system's name

struct Renamed {
  std::string_view name;
  std::string_view becomes;
};

constexpr std::string_view kAsTheyAre[] = {"C", "en_US", "en_US.UTF-8", "en_US.utf8"};

constexpr Renamed kRenamed[] = {
    {"ja", "ja_JP.EUC"},       {"japan", "ja_JP.EUC"},         {"ja_JP", "ja_JP.EUC"},
    {"japanese", "ja_JP.EUC"}, {"fr", "fr_FR.8859-1"},         {"de", "de_DE.8859-1"},
    {"zh", "zh_CN.GB2312-80"}, {"chinese", "zh_CN.GB2312-80"}, {"zh_CN.EUC", "zh_CN.GB2312-80"},
};

// This system's name of the locale `name`. The codeset may still be Latin-1 by another name.
std::string_view renamed(std::string_view name) {
  for (const Renamed& each : kRenamed) {
    if (name == each.name) return each.becomes;
  }
  std::string_view codeset = text_part(name, name.find('.'));
  if (codeset == ".eucJP") return "ja_JP.EUC";
  if (codeset == ".PCK") return "ja_JP.sjis";
  return name;
}

}  // namespace

bool normalise_locale(const char* name, char (&buffer)[kLocaleNameSize]) {
  std::string_view text = name;
  for (std::string_view plain : kAsTheyAre) {
    if (text == plain) return false;
  }
  // A longer name would be cut to the name of another locale.
  if (text.size() >= kLocaleNameSize) return false;
  text = renamed(text);
  std::string_view stem = text_part(text, 0, text.find('.'));
  std::string_view codeset = text_part(text, stem.size());
  if (codeset == ".iso88591" || codeset == ".ISO8859-1") codeset = ".8859-1";
  snprintf(buffer, kLocaleNameSize, "%.*s%.*s", static_cast<int>(stem.size()), stem.data(),
           static_cast<int>(codeset.size()), codeset.data());
  return true;
}

const char* init_locales(const char* /*name*/, const char* locale) {
  const char* messages = setlocale(LC_MESSAGES, "");
  if (messages != nullptr) normalise_locale(messages, locale_name);
  if (Debug > 0) {
    debugprintf("Locale\"%s\" found.\n", locale_name);
    debugprintf("Lang Subdir is\"unknown\".\n");
  }
  rap_locale.reset(xstrdup(setlocale(LC_ALL, "C")));
  user_locale.reset(xstrdup(rap_locale.get()));
  const char* selected = setlocale(LC_ALL, locale);
  learn_codeset();
  return selected;
}

const char* get_lang_subdir() { return nullptr; }

const char* get_rap_locale() { return rap_locale.get(); }

const char* get_user_locale() { return user_locale.get(); }
