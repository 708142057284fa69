// lab_run COMMAND...: runs a command in the lab, as the demo, the benchmarks and
// valgrind want it.
#include <unistd.h>

#include <cstdio>

#include "tests/lab.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: lab_run COMMAND...\n");
    return 2;
  }
  lab::enter(argv);
  if (!lab::why_outside().empty()) {
    fprintf(stderr, "lab_run: %s\n", lab::why_outside().c_str());
    return 1;
  }
  execvp(argv[1], argv + 1);
  perror(argv[1]);
  return 127;
}
