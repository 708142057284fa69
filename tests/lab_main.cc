// The main of every test program: into the lab, then the tests.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/lab.h"

int main(int argc, char** argv) {
  // Listing the tests needs no lab, and the build lists them.
  if (argc < 2 || strcmp(argv[1], "--gtest_list_tests") != 0) lab::enter(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
