// The whole command beside a C program that makes the same calls of the C library.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/compare.h"
#include "bench/groups.h"

namespace {

struct Program {
  std::string path;
  std::vector<const char*> words;

  void run() {
    pid_t child = 0;
    int status = -1;
    require(posix_spawn(&child, path.c_str(), nullptr, nullptr, const_cast<char**>(words.data()),
                        environ) == 0);
    require(waitpid(child, &status, 0) == child);
    require(status == 0);
  }

  // In KiB. The kernel maps the pages around one that is touched, other ones in each run:
  // the median of many runs counts.
  long peak_memory(const std::string& build) const {
    std::string command = build + "/bench/peak_memory";
    for (const char* word : words) command += word != nullptr ? std::string(" ") + word : "";
    std::vector<long> peaks(101);
    for (long& peak : peaks) {
      FILE* output = popen(command.c_str(), "r");
      require(fscanf(output, "%ld", &peak) == 1);
      require(pclose(output) == 0);
    }
    std::sort(peaks.begin(), peaks.end());
    return peaks[peaks.size() / 2];
  }
};

}  // namespace

void measure_command(const std::string& build) {
  const std::string text = build + "/bench/disk_full";
  FILE* file = fopen(text.c_str(), "w");
  require(file != nullptr);
  fputs("disk full\n", file);
  fclose(file);
  Program kivtrap = {build + "/trap/kivtrap", {}};
  kivtrap.words = {kivtrap.path.c_str(), "-f", text.c_str(), "127.0.0.1", nullptr};
  Program floor = {build + "/bench/library_calls", {}};
  floor.words = {floor.path.c_str(), "-f", text.c_str(), nullptr};
  compare(
      "the whole command: time", 1.15, [&] { kivtrap.run(); }, [&] { floor.run(); });
  report("the whole command: peak memory", static_cast<double>(kivtrap.peak_memory(build)),
         static_cast<double>(floor.peak_memory(build)), 1.2);
}
