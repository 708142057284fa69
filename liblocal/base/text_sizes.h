// How large texts may become, terminators included.
#pragma once

#include <cstddef>

constexpr size_t kMessageSize = 18432;   //!< bytes of a message, a converted line
constexpr size_t kPathSize = 12288;      //!< bytes of a path name
constexpr size_t kErrorTextSize = 1024;  //!< bytes of one system error's text
