#include "liblocal/startup/dbgsignl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "liblocal/base/vx_thread.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/print.h"
#include "liblocal/startup/debug_command.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/vxpath.h"

char Dbgcmdpath[kPathSize];
std::atomic<int> Debug_me;
std::atomic<int> Force_debug;

namespace {

constexpr uint32_t kDebuggerWaitMillis = 10000;

// One debug line, built without the platform's formatter: a signal handler may not call it.
class SignalLine {
 public:
  SignalLine() { length_ = strlen(print_prefix_in_handler(text_)); }

  SignalLine& operator<<(std::string_view text) {
    size_t room = sizeof text_ - length_;
    length_ += text_copy(text, text_ + length_, room);
    return *this;
  }

  SignalLine& operator<<(int number) {
    char digits[12];
    return *this << std::string_view(digits, std::to_chars(digits, std::end(digits), number).ptr);
  }

  void send() const { [[maybe_unused]] ssize_t result = write(debug_descriptor(), text_, length_); }

 private:
  char text_[kMessagePrefixSize + kDebugCommandLimit + 128];  // one command has name and value
  size_t length_;
};

struct Level {
  std::string_view name;
  std::string_view title;  // its name in the debug line
  std::atomic<int>* value;
};

constexpr Level kLevels[] = {
    {"Debug", "Debug level", &Debug},
    {"Vflag", "Vflag level", &Vflag},
    {"PrintDevInfo", "PrintDevInfo", &PrintDevInfo},
};

void apply(const debug_command& command) {
  if (command.value < 0) {
    if (Debug > 2) {
      (SignalLine() << command.value_text << " is an invalid value for " << command.name << "\n")
          .send();
    }
    return;
  }
  for (const Level& level : kLevels) {
    if (!same_ignoring_case(command.name, level.name)) continue;
    if (Debug >= 0) {
      (SignalLine() << "Changing " << level.title << " of process (id " << getpid() << ") from "
                    << level.value->load() << " to " << command.value << "\n")
          .send();
    }
    *level.value = command.value;
    return;
  }
}

// Reads the debug command file into `text`, of kDebugCommandLimit bytes, and deletes it.
// Returns what was read; nothing when there is no command. Others may be able to write to
// the file's directory, so only a regular file is accepted, and opening it neither follows
// a link nor waits for a FIFO's writer.
std::string_view take_command(char* text) {
  int file = open(Dbgcmdpath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (file < 0) return {};
  std::string_view command;
  struct stat status;
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
    const ssize_t length = read(file, text, kDebugCommandLimit);
    if (length > 0) command = {text, static_cast<size_t>(length)};
    unlink(Dbgcmdpath);
  }
  close(file);
  return command;
}

// Copies the base name of `path`, up to its last dot and in lower case, into `name`, of
// kPathComponentSize bytes.
void copy_base_name(const char* path, char* name) {
  vx_path_basename(path, name, kPathComponentSize);
  if (char* dot = strrchr(name, '.'); dot != nullptr) *dot = '\0';
  lower_ascii(name);
}

// True when an item of `list` begins with `name`, in any case.
bool is_listed(std::string_view list, std::string_view name) {
  for (;;) {
    const size_t comma = list.find(',');
    const std::string_view item = text_part(list, 0, comma);
    if (same_ignoring_case(text_part(item, 0, name.size()), name)) return true;
    if (comma == list.npos) return false;
    list.remove_prefix(comma + 1);
  }
}

}  // namespace

void ondbgintr(int signal) {
  if (signal != SIGUSR2) return;
  int saved_errno = errno;
  char text[kDebugCommandLimit];
  if (auto command = parse_debug_command(take_command(text))) apply(*command);
  errno = saved_errno;
}

void debug_check(const char* path) {
  char name[kPathComponentSize] = "";
  copy_base_name(path, name);
  if (Force_debug.exchange(0) != 0) {
    Debug_me = 1;
  } else {
    const char* list = Debug_me != 0 ? vxgetenv("KIV_DEBUGPROCS") : nullptr;
    if (list == nullptr || !is_listed(list, name)) return;
  }
  while (Debug_me != 0) {
    if (Debug >= 0) {
      debugprintf("%s (%d) waiting to be debugged\n", name, static_cast<int>(getpid()));
    }
    vx_thread_sleep(kDebuggerWaitMillis);
  }
}
