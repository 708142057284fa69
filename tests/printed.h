// What a piece of work tells on standard error.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "liblocal/messages/debug.h"
#include "liblocal/messages/progname.h"

/// What `work` writes to standard error in a program named kivtrap, with `Debug` at `level`.
inline std::string printed(int level, auto work) {
  vx_set_progname("kivtrap");
  Debug = level;
  testing::internal::CaptureStderr();
  work();
  Debug = 0;
  return testing::internal::GetCapturedStderr();
}
