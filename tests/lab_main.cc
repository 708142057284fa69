// The main of every test program: into the lab, then the tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

int main(int argc, char** argv) {
  // Listing the tests needs no lab, and the build lists them.
  const bool lists = argc > 1 && strcmp(argv[1], "--gtest_list_tests") == 0;
  if (getenv("KIVTRAP_LAB") == nullptr && !lists) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<char*> words = {const_cast<char*>(LAB), const_cast<char*>(self.c_str())};
    words.insert(words.end(), argv + 1, argv + argc + 1);
    execv(LAB, words.data());
    perror(LAB);
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
