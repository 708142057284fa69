// kivtrap_bench BUILD_DIR GROUP: measures a group of paths, each path beside its floor. The
// status is 1 when one took longer than its budget allows.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <clocale>
#include <string>
#include <vector>

#include "bench/compare.h"

void measure_snmp();
void measure_rpc();
void measure_text();
void measure_xdr();
void measure_hosts();

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
  double peak_memory() const {
    std::string command = "/usr/bin/time -f %M 2>&1";
    for (const char* word : words) command += word != nullptr ? std::string(" ") + word : "";
    std::vector<double> peaks(101);
    for (double& peak : peaks) {
      FILE* output = popen(command.c_str(), "r");
      require(fscanf(output, "%lf", &peak) == 1);
      require(pclose(output) == 0);
    }
    std::nth_element(peaks.begin(), peaks.begin() + 50, peaks.end());
    return peaks[50];
  }
};

// The whole command beside a C program that makes the same calls of the C library.
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
  report("the whole command: peak memory", kivtrap.peak_memory(), floor.peak_memory(), 1.2);
}

}  // namespace

int main(int argc, char** argv) {
  require(argc == 3);
  setlocale(LC_ALL, "");
  const std::string group = argv[2];
  if (group == "command") measure_command(argv[1]);
  if (group == "snmp") measure_snmp();
  if (group == "rpc") measure_rpc();
  if (group == "text") measure_text();
  if (group == "xdr") measure_xdr();
  if (group == "hosts") measure_hosts();
  return over_budget ? 1 : 0;
}
