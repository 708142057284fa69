#include "liblocal/text/utf8.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/utf8_convert.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/locales.h"
#include "tests/stand_ins.h"
#include "tests/threads.h"

namespace {

// Everything that vxfgets reads from a file of `bytes` in pieces of a small buffer; where
// its size is odd, the stream has none.
std::string read_in_pieces(const std::string& bytes, int size) {
  FILE* file = tmpfile();
  if (size % 2 != 0) setvbuf(file, nullptr, _IONBF, 0);
  fwrite(bytes.data(), 1, bytes.size(), file);
  rewind(file);
  std::string text;
  std::string buffer(static_cast<size_t>(size), '!');
  while (vxfgets(buffer.data(), size, file) != nullptr) {
    const std::string piece = buffer.c_str();
    EXPECT_TRUE(piece != "" && piece.find('\n') >= piece.size() - 1) << "one line at a time";
    EXPECT_EQ(is_utf8_mbs(piece.c_str()), 1);
    text += piece;
  }
  vxfclose(file);
  return text;
}

TEST(Utf8Streams, LinesArriveWholeAndOnce) {
  const struct {
    const char* codeset;
    std::string ansi, utf8;
  } cases[] = {{"", "\xE9x", "éx"},
               {"ISO-8859-15", "\xA4", "€"},
               {"EUC-JP", "\xC6\xFC\x8F\xB0\xA1z", "日丂z"},
               {"SHIFT_JIS", "\x93\xFA\xB1", "日ｱ"},
               {"TCVN5712-1", "xxxxxxxo\xB3", "xxxxxxxó"},                // of two characters
               {"CP1255", "xxxxxxx\xF9\xCC\xD1", "xxxxxxx\xEF\xAC\xAC"},  // of three
               {"UTF-8", "日é", "日é"}};
  in_locale("EUC-JP", [] {
    EXPECT_EQ(read_in_pieces("a\xC6\xFC\n", 4), "a日\n");
    EXPECT_EQ(read_in_pieces("a\xC6\xFC\n", 2), "a??\n") << "no room for the character";
  });
  for (const auto& [codeset, ansi, utf8] : cases) {
    in_locale(codeset, [&ansi = ansi, &utf8 = utf8] {
      for (size_t length : {0U, 1U, 7U, 100U, 1023U, 20000U}) {
        std::string raw, wanted;
        while (raw.size() < length) raw += ansi, wanted += utf8;
        raw += "\nplain\n" + ansi;
        wanted += "\nplain\n" + utf8;
        for (int size : {7, 8, 64, 1023, 9000, 18432}) {
          EXPECT_TRUE(read_in_pieces(raw, size) == wanted) << length << " " << size;
        }
      }
    });
  }
}

TEST(Utf8Streams, RefusedMemory) {
  in_locale("ISO-8859-15", [] {
    FILE* file = tmpfile();
    fputs("\xA4\xA4\xA4\nz", file);
    rewind(file);
    char buffer[8];
    {
      FailingMalloc failing(0);
      EXPECT_EQ(vxfgets(buffer, 5, file), nullptr);
    }
    EXPECT_STREQ(vxfgets(buffer, 5, file), "€") << "nothing was lost";
    stand_ins::no_push_back = true;
    EXPECT_EQ(vxfgets(buffer, 5, file), nullptr);
    EXPECT_STREQ(vxfgets(buffer, 5, file), "z");
    vxfclose(file);
  });
}

TEST(Utf8Streams, ThreadsShareAStreamAndTheConverters) {
  in_locale("ISO-8859-15", [] {
    FILE* file = tmpfile();
    for (int line = 0; line < 2000; ++line) fputs("\xA4\xA4\xA4\n", file);
    rewind(file);
    std::atomic<int> whole = 0;
    in_threads(4, [&](int) {
      char buffer[11], ansi[11], utf8[11];
      while (vxfgets(buffer, sizeof buffer, file) != nullptr) {
        ansi_mbs(ansi, buffer, sizeof ansi);
        utf8_mbs(utf8, ansi, sizeof utf8);
        whole += strcmp(buffer, "€€€\n") == 0 && strcmp(buffer, utf8) == 0;
      }
    });
    EXPECT_EQ(whole, 2000);
    vxfclose(file);
  });
}

TEST(Utf8Streams, BytesAsTheyAre) {
  FILE* file = tmpfile();
  utf8_fp(file);
  const std::string line = std::string(2000, '\xE9') + "\n";
  EXPECT_GE(vxfputs((line + "A\xE9\nlong\xE9\n").c_str(), file), 0);
  rewind(file);
  char buffer[1023];
  EXPECT_EQ(vxfgets(buffer, sizeof buffer, file), line.substr(0, 1022));
  EXPECT_EQ(vxfgets(buffer, sizeof buffer, file), line.substr(1022));
  user_fp(file);
  EXPECT_STREQ(vx_fgetmbts(buffer, 8, file), "A\xEF\xA3\xA9\n");
  EXPECT_EQ(vx_fgetmbts(buffer, 8, file), nullptr) << "it stays";
  EXPECT_STREQ(vx_fgetmbts(buffer, 16, file), "long\xEF\xA3\xA9\n");
  vxfclose(file);
}

TEST(Utf8Streams, StandardStreams) {
  in_locale("ISO-8859-15", [] {
    TemporaryDirectory place;
    const std::string path = place.path() + "/text";
    const std::string tail(18431, '\xE9');
    lab::write_file(path, "\xA4\n\n" + tail + "\nlast");
    ASSERT_NE(freopen(path.c_str(), "r", stdin), nullptr);
    std::string buffer(kGetsSize, '!');
    EXPECT_STREQ(vxgets(buffer.data()), "€");
    EXPECT_STREQ(vxgets(buffer.data()), "");
    std::string long_line;
    while (long_line.size() < 2 * tail.size()) long_line += vxgets(buffer.data());
    EXPECT_EQ(long_line.size(), 2 * tail.size());
    EXPECT_STREQ(vxgets(buffer.data()), "last");
    EXPECT_EQ(vxgets(buffer.data()), nullptr);

    const std::string text = "€" + std::string(18430, 'x') + "€";
    ASSERT_NE(freopen(path.c_str(), "w", stdout), nullptr);
    EXPECT_EQ(vxfputs(text.c_str(), stdout), 2) << "pieces";
    EXPECT_EQ(vxputs("é"), 2);
    fflush(stdout);
    EXPECT_EQ(lab::read_file(path), "\xA4" + std::string(18430, 'x') + "\xA4\xE9\n");
    ASSERT_NE(freopen("/dev/full", "w", stdout), nullptr);
    setvbuf(stdout, nullptr, _IONBF, 0);
    EXPECT_EQ(vxfputs("é", stdout) + vxputs("é"), -2);
  });
}

TEST(Utf8Streams, NothingOfALineIsLost) {
  in_locale("EUC-JP", [] {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
    FILE* stream = fdopen(ends[0], "r");
    char buffer[64];
    EXPECT_EQ(write(ends[1], "\xC6", 1), 1);
    EXPECT_EQ(vxfgets(buffer, sizeof buffer, stream), nullptr) << "half a character";
    EXPECT_EQ(write(ends[1], "\xFC\n", 2), 2);
    EXPECT_STREQ(vxfgets(buffer, sizeof buffer, stream), "日\n");
    vxfclose(stream);
    close(ends[1]);
  });
  struct sigaction interrupt = {};
  interrupt.sa_handler = [](int) {};  // without SA_RESTART
  sigaction(SIGUSR1, &interrupt, nullptr);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::thread writer([&, reader = pthread_self()] {
    for (const char* part : {"one ", "line\n"}) {
      usleep(20000);
      pthread_kill(reader, SIGUSR1);
      usleep(20000);
      EXPECT_GT(write(ends[1], part, strlen(part)), 0);
    }
  });
  FILE* stream = fdopen(ends[0], "r");
  char buffer[64];
  EXPECT_STREQ(vxfgets(buffer, sizeof buffer, stream), "one line\n");
  writer.join();
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  EXPECT_EQ(write(ends[1], "part", 4), 4);
  EXPECT_STREQ(vxfgets(buffer, sizeof buffer, stream), "part");
  EXPECT_EQ(vxfgets(buffer, sizeof buffer, stream), nullptr);
  vxfclose(stream);
  close(ends[1]);
}

TEST(Utf8Marks, TenOfThem) {
  for (int descriptor = 100; descriptor < 111; ++descriptor) {
    utf8_fd(descriptor);
    utf8_fd(descriptor);
  }
  EXPECT_TRUE(utf8_is_marked(100) && utf8_is_marked(109) && !utf8_is_marked(110));
  user_fd(104);
  utf8_fd(110);
  EXPECT_TRUE(utf8_is_marked(103) && !utf8_is_marked(104) && utf8_is_marked(110));
  EXPECT_EQ(vxclose(110), -1);
  EXPECT_FALSE(utf8_is_marked(110));
  for (int descriptor = 100; descriptor < 110; ++descriptor) user_fd(descriptor);

  FILE* child = popen("exit 3", "r");
  const int descriptor = fileno(child);
  utf8_fp(child);
  EXPECT_EQ(WEXITSTATUS(vxpclose(child)), 3);
  FILE* file = fopen("/dev/null", "r");
  EXPECT_EQ(fileno(file), descriptor);
  EXPECT_FALSE(utf8_is_marked(descriptor));
  utf8_fp(file);
  EXPECT_EQ(vxfclose(file), 0);
  EXPECT_FALSE(utf8_is_marked(descriptor));
}

TEST(Utf8Marks, AMarkIsNeverMissedWhileOthersGo) {
  utf8_fd(209);
  in_threads(4, [](int number) {
    for (int round = 0; round < 2000; ++round) {
      utf8_fd(200 + number);
      ASSERT_TRUE(utf8_is_marked(209));
      user_fd(200 + number);
    }
  });
  user_fd(209);
}

}  // namespace
