// Locales and directories for tests.
#pragma once

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>

#include "tests/machine.h"

/// A new directory, removed with the object.
class TemporaryDirectory {
 public:
  TemporaryDirectory() : path_(mkdtemp(name_)) {}
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  const std::string& path() const { return path_; }

 private:
  char name_[32] = "/tmp/kiv-test-XXXXXX";
  const std::string path_;
};

/// Whether the locales of tests, SOURCE.CODESET in the directory KIV_LOCALES, could not be made;
/// then the running test is skipped, and in CI it fails.
inline bool locales_are_missing() {
  if (std::filesystem::exists(KIV_LOCALES "/POSIX.UTF-8/LC_CTYPE")) return false;
  MachineTest::skip("localedef with its sources (package locales) is missing");
  return true;
}

/// Runs `body` in a locale with that codeset and source, "" the plain one, in a process of its
/// own, because the first conversion fixes the codeset of a process.
inline void in_locale(const std::string& codeset, const std::function<void()>& body,
                      const std::string& source = "POSIX") {
  if (!codeset.empty() && locales_are_missing()) return;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto run = [&] {
    if (!codeset.empty()) {
      setenv("LOCPATH", KIV_LOCALES, 1);
      EXPECT_NE(setlocale(LC_ALL, (source + "." + codeset).c_str()), nullptr) << codeset;
    }
    body();
    // GoogleTest does not print what fails in such a process.
    const auto* result = testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result->total_part_count(); ++i) {
      std::cerr << result->GetTestPartResult(i) << "\n";
    }
    exit(result->Failed() ? 1 : 0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "") << codeset;
}
