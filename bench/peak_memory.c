// peak_memory PROGRAM [ARGUMENT...]: runs the program and prints its peak resident
// memory in KiB. Written in C and forking plainly, since a child's peak includes
// what its parent had in memory at the fork.
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  pid_t child = fork();
  if (child == 0) {
    execv(argv[1], argv + 1);
    _exit(127);
  }
  int status = 0;
  struct rusage usage;
  if (child < 0 || wait4(child, &status, 0, &usage) != child || status != 0) return 1;
  printf("%ld\n", usage.ru_maxrss);
  return 0;
}
