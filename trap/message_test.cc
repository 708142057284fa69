#include "trap/message.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "liblocal/text/utf8.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "trap/delivery.h"

namespace {

TEST(WrapLine, BreaksAtWhiteSpace) {
  const std::string a38(38, 'a'), a40(40, 'a'), b20(20, 'b'), c19(19, 'c');
  const std::string x42(42, 'x'), blanks(60, ' ');
  const std::string rows[] = {a40, a40 + "\n", b20 + " " + c19, a38 + "\nbbb " + b20,
                              b20 + " " + b20 + "\nb", a38 + "\n  " + b20, "\n" + blanks,
                              // The next segment counts from its own start.
                              a38 + "\n" + a40,
                              // A word of more than 41 bytes is left whole.
                              "one\n" + x42 + "\nx" + x42 + "\ntwo"};
  for (const std::string& wrapped : rows) {
    std::string line = wrapped;
    std::replace(line.begin(), line.end(), '\n', '\t');
    char result[kLineSize];
    wrap_line(line.c_str(), result);
    EXPECT_EQ(result, wrapped);
  }
}

// Reads the next text; a null one is a signal. Behind every read errno is that of a signal.
ssize_t read_next(void* texts, char* buffer, size_t /*size*/) {
  const char* text = *(*static_cast<const char***>(texts))++;
  errno = EINTR;
  return text != nullptr ? stpcpy(buffer, text) - buffer : -1;
}

TEST(ReadMessage, AnInterruptedReadLosesNoText) {
  const char* texts[] = {nullptr, "disk ", nullptr, "full\n", nullptr, "more\n", ""};
  const char** next = texts;
  FILE* source = fopencookie(&next, "r", {read_next, nullptr, nullptr, nullptr});
  source->_fileno = 100;  // such a stream has no descriptor, which a mark needs
  utf8_fp(source);
  EXPECT_STREQ(read_message(source, false).get(), "disk full");
}

TEST(DeliverTrap, FailsWithoutMemoryAndSendsNothing) {
  if (machine::skip_without_ports()) return;
  const machine::UdpReceiver station(162);
  const TrapOptions options = {"public", "1", "1", nullptr, "127.0.0.1"};
  fakes::refuse_each_allocation([&](const fakes::FailingMalloc& failing) {
    const int status = deliver_trap(options, "10.0.0.1", "disk full");
    EXPECT_EQ(status, failing.failed() ? 1 : 0);
    EXPECT_EQ(station.receive_now().empty(), failing.failed());
  });
}

}  // namespace
