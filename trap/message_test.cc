#include "trap/message.h"

#include <cstring>

#include "liblocal/text/utf8.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "trap/delivery.h"

namespace {

std::string letters(char letter, size_t count) { return std::string(count, letter); }

TEST(WrapLine, Breaks) {
  const std::string a38 = letters('a', 38), a40 = letters('a', 40), a41 = letters('a', 41),
                    b20 = letters('b', 20);
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {a40, a40},
      {a40 + " ", a40 + "\n"},
      {a38 + " " + b20, a38 + "\n" + b20},
      {a41 + " b", a41 + "\nb"},
      {a38 + "   " + b20, a38 + "\n  " + b20},
      // the next segment counts from its own start
      {a38 + " " + a40 + " c\n", a38 + "\n" + a40 + "\nc\n"},
      {b20 + " " + letters('c', 19) + "\t" + b20, b20 + " " + letters('c', 19) + "\n" + b20},
      // a word of more than 41 bytes is left whole
      {"one " + letters('x', 100) + " two", "one\n" + letters('x', 100) + "\ntwo"},
      {letters(' ', 60), "\n" + letters(' ', 59)},
  };
  for (const auto& [line, wanted] : cases) {
    char wrapped[kLineSize];
    wrap_line(line.c_str(), wrapped);
    EXPECT_EQ(wrapped, wanted) << line;
  }
}

TEST(ReadMessage, WithoutMemoryTheNextLineGetsItsChance) {
  FILE* source = tmpfile();
  fputs("line 1\nline 2\n", source);
  rewind(source);
  utf8_fp(source);
  FailingMalloc failing(0, 1);
  c_unique_ptr<char> message = read_message(source, false);
  EXPECT_STREQ(message.get(), "line 2");
}

TEST(DeliveryTest, EveryAllocationMayFail) {
  if (lab::skip_without_ports()) return;
  lab::UdpReceiver station(162);
  TrapOptions options;
  options.community = "public";
  options.trap = options.specific = "1";
  options.host = "127.0.0.1";
  char message[] = "text";
  int status = 1;
  int refused = 0;
  for (; status != 0 && refused < 50; ++refused) {
    testing::internal::CaptureStdout();
    {
      FailingMalloc failing(refused);
      status = deliver_trap(options, "10.0.0.1", message);
    }
    // Only the session says anything, and only of itself.
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(printed.empty() || (status == 1 && printed == "Couldn't open snmp\n")) << printed;
    EXPECT_EQ(station.receive_now().has_value(), status == 0);
  }
  EXPECT_EQ(status, 0);
  EXPECT_GT(refused, 5);
}

}  // namespace
