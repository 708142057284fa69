#include "liblocal/text/utf8.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <tuple>

#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/utf8_convert.h"
#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

FILE* file_of(const std::string& bytes) {
  FILE* file = tmpfile();
  fwrite(bytes.data(), 1, bytes.size(), file);
  rewind(file);
  return file;
}

// Everything that vxfgets reads from a file of `bytes` in pieces that fill a small buffer;
// where its size is odd, the stream has none.
std::string read_in_pieces(const std::string& bytes, int size) {
  FILE* file = file_of(bytes);
  if (size % 2 != 0) setvbuf(file, nullptr, _IONBF, 0);
  std::string text, buffer(static_cast<size_t>(size), '!');
  while (vxfgets(buffer.data(), size, file) != nullptr) {
    const std::string piece = buffer.c_str();
    EXPECT_TRUE(piece != "" && piece.find('\n') >= piece.size() - 1) << "one line at a time";
    EXPECT_TRUE(piece.back() == '\n' || piece.size() + kUtf8MaxLength >= buffer.size() - 1 ||
                feof(file) != 0);
    EXPECT_EQ(is_utf8_mbs(piece.c_str()), 1);
    text += piece;
  }
  vxfclose(file);
  return text;
}

TEST(Utf8Streams, LinesArriveWholeAndOnce) {
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"", "x", "x"},
      {"EUC-JP", "\xC6\xFC\x8F\xB0\xA1z", "日丂z"},
      {"CP1255", "xxxxxxx\xF9\xCC\xD1", "xxxxxxx\xEF\xAC\xAC"},  // of three
      {"UTF-8", "日é", "日é"}};
  for (const auto& each : cases) {
    in_locale(std::get<0>(each), [&] {
      const auto& [codeset, ansi, utf8] = each;
      std::string raw, wanted, raw_line, line;
      for (int length = 0; length < 200; ++length, raw_line += ansi, line += utf8) {
        raw += raw_line + "\n", wanted += line + "\n";
      }
      raw += raw_line, wanted += line;
      for (int size : {7, 8, 150, 1023}) EXPECT_TRUE(read_in_pieces(raw, size) == wanted) << size;
    });
  }
}

TEST(Utf8Streams, NulBytesAndTheEnd) {
  FILE* file = file_of(std::string("a\0b\nnext\n", 9));
  char buffer[64];
  errno = EBUSY;
  EXPECT_TRUE(*vxfgets(buffer, 1, file) == '\0' && vxfgets(buffer, 0, file) == nullptr);
  ASSERT_NE(vxfgets(buffer, sizeof buffer, file), nullptr);
  EXPECT_EQ(std::string(buffer, 5), std::string("a\0b\n\0", 5));
  EXPECT_STREQ(vxfgets(buffer, sizeof buffer, file), "next\n");
  EXPECT_EQ(vxfgets(buffer, sizeof buffer, file), nullptr);
  EXPECT_EQ(errno, EBUSY) << "the end is no error";
  ASSERT_NE(freopen("/", "r", file), nullptr);
  EXPECT_TRUE(vxfgets(buffer, sizeof buffer, file) == nullptr && errno == EISDIR);
  vxfclose(file);
}

TEST(Utf8Streams, RefusedMemory) {
  FILE* file = file_of("\xE9\xE9\xE9\xE9\xE9\nz");
  char buffer[8];
  EXPECT_FALSE((fakes::FailingMalloc(0), vxfgets(buffer, 5, file) || vx_fgetmbts(buffer, 8, file)));
  EXPECT_STREQ(vxfgets(buffer, 5, file), "éé") << "nothing was lost";
  fakes::no_push_back = true;
  EXPECT_EQ(vxfgets(buffer, 5, file), nullptr);
  fakes::no_push_back = false;
  EXPECT_STREQ(vxfgets(buffer, 5, file), "z");
  vxfclose(file);
}

TEST(Utf8Streams, ThreadsShareAStreamAndTheConverters) {
  std::string lines;
  while (lines.size() < 4000) lines += "\xE9\xE9\xE9\n";
  FILE* file = file_of(lines);
  std::atomic<int> whole = 0;
  in_threads(4, [&](int) {
    char buffer[8], ansi[8];
    while (vxfgets(buffer, sizeof buffer, file) != nullptr) {
      whole += ansi_mbs(ansi, buffer, sizeof ansi) == 4 && strcmp(buffer, "ééé\n") == 0;
    }
  });
  EXPECT_EQ(whole, 1000);
  vxfclose(file);
}

TEST(Utf8Streams, BytesAsTheyAre) {
  FILE* file = tmpfile();
  utf8_fp(file);
  const std::string line = std::string(2000, '\xE9') + "\n";
  EXPECT_GE(vxfputs((line + "A\xE9\n").c_str(), file), 0);
  rewind(file);
  char buffer[1023];
  EXPECT_EQ(vxfgets(buffer, sizeof buffer, file), line.substr(0, 1022));
  EXPECT_EQ(vx_fgetmbts(buffer, sizeof buffer, file), line.substr(1022));
  user_fp(file);
  EXPECT_STREQ(vx_fgetmbts(buffer, 8, file), "A\xEF\xA3\xA9\n");
  EXPECT_EQ(vx_fgetmbts(buffer, 16, file), nullptr);
  vxfclose(file);
}

TEST(Utf8Streams, StandardStreams) {
  in_locale("ISO-8859-15", [] {
    TemporaryDirectory place;
    const std::string path = place.path() + "/text";
    const std::string tail(18431, '\xE9');
    machine::write_file(path, "\xA4\n\n" + tail + "\n" + tail.substr(0, 1500) + "\nlast");
    ASSERT_NE(freopen(path.c_str(), "r", stdin), nullptr);
    std::string buffer(kGetsSize, '!'), long_line;
    for (const char* line : {"€", ""}) EXPECT_STREQ(vxgets(buffer.data()), line);
    while (long_line.size() < 2 * tail.size()) long_line += vxgets(buffer.data());
    EXPECT_EQ(long_line.size(), 2 * tail.size());
    utf8_fp(stdin);
    for (size_t length : {1023U, 477U}) EXPECT_EQ(vxgets(buffer.data()), tail.substr(0, length));
    EXPECT_STREQ(vxgets(buffer.data()), "last");
    EXPECT_EQ(vxgets(buffer.data()), nullptr);
    user_fp(stdin);

    const std::string middle(18427, 'x');  // so that a piece would end inside a character
    ASSERT_NE(freopen(path.c_str(), "w", stdout), nullptr);
    EXPECT_EQ(vxfputs(("€" + middle + "€€").c_str(), stdout), 2) << "pieces";
    EXPECT_EQ(vxputs("é") + vxputs("") + ansi_fputs("é", stdout), 4);
    EXPECT_TRUE(vxfputs("", stdout) == 0 && vxfputs(nullptr, stdout) + vxputs(nullptr) == -2);
    utf8_fp(stdout);
    EXPECT_GE(vxputs("é"), 0);
    user_fp(stdout);
    fflush(stdout);
    EXPECT_EQ(machine::read_file(path), "\xA4" + middle + "\xA4\xA4\xE9\n\néé\n");
    ASSERT_NE(freopen("/dev/full", "w", stdout), nullptr);
    setvbuf(stdout, nullptr, _IONBF, 0);
    EXPECT_TRUE(vxfputs("é", stdout) == -1 && vxputs("é") == -1 && vxputs("") == -1);
  });
}

TEST(Utf8Streams, NothingOfALineIsLost) {
  in_locale("EUC-JP", [] {
    EXPECT_EQ(read_in_pieces("a\xC6\xFC\n", 4), "a日\n");
    EXPECT_EQ(read_in_pieces("a\xC6\xFC\n", 2), "a??\n") << "no room for the character";
    static int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    struct sigaction interrupt = {};
    interrupt.sa_handler = [](int) {  // ends a wait, without SA_RESTART, and gives a byte more
      static const char* rest = "one line\n";
      if (*rest != '\0' && write(ends[1], rest, 1) == 1) ++rest;
    };
    sigaction(SIGALRM, &interrupt, nullptr);
    const itimerval often = {{0, 5000}, {0, 5000}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    FILE* stream = fdopen(ends[0], "r");
    char buffer[64];
    EXPECT_STREQ(vxfgets(buffer, sizeof buffer, stream), "one line\n");
    setitimer(ITIMER_REAL, &never, nullptr);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    const std::pair<std::string, const char*> cases[] = {
        {"part", "part"}, {"", nullptr}, {"\xC6", nullptr}, {"\xFC\n", "日\n"}};
    for (const auto& [written, line] : cases) {
      EXPECT_GE(write(ends[1], written.data(), written.size()), 0);
      errno = 0;
      EXPECT_STREQ(vxfgets(buffer, sizeof buffer, stream), line);
      EXPECT_EQ(errno, line == nullptr ? EAGAIN : errno);
    }
    vxfclose(stream);
    close(ends[1]);
  });
}

// A pipe that signals write to: without SA_RESTART, each one ends a wait and writes the next of
// `texts`, until there is none.
class SignalledPipe {
 public:
  explicit SignalledPipe(std::vector<std::string> texts) {
    EXPECT_EQ(pipe(ends_), 0);
    stream_ = fdopen(ends_[0], "r");
    texts_ = std::move(texts);
    write_end_ = ends_[1];
    struct sigaction interrupt = {};
    interrupt.sa_handler = [](int) {
      if (next_ == texts_.size()) return;
      const std::string& text = texts_[next_++];
      EXPECT_EQ(write(write_end_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    sigaction(SIGALRM, &interrupt, nullptr);
    next_ = 0;
    const itimerval often = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  ~SignalledPipe() {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
    vxfclose(stream_);
    close(ends_[1]);
  }
  SignalledPipe(const SignalledPipe&) = delete;
  FILE* stream() { return stream_; }

 private:
  inline static std::vector<std::string> texts_;
  inline static size_t next_;
  inline static int write_end_;
  int ends_[2];
  FILE* stream_;
};

TEST(MarkedStream, ASignalWithinALineLosesNothing) {
  SignalledPipe pipe({"disk ", "full", "\n"});
  utf8_fp(pipe.stream());
  char buffer[64];
  errno = 0;
  EXPECT_EQ(vxfgets(buffer, sizeof buffer, pipe.stream()), nullptr) << "before the first byte";
  EXPECT_EQ(errno, EINTR);
  clearerr(pipe.stream());
  EXPECT_STREQ(vxfgets(buffer, sizeof buffer, pipe.stream()), "disk full\n");
}

TEST(Utf8Streams, TheEndLeavesTheBufferAsItWas) {
  for (const bool marked : {false, true}) {
    SCOPED_TRACE(marked);
    FILE* file = file_of("");
    if (marked) utf8_fp(file);
    char buffer[] = "before";
    EXPECT_EQ(vxfgets(buffer, sizeof buffer, file), nullptr);
    EXPECT_STREQ(buffer, "before");
    EXPECT_EQ(vx_fgetmbts(buffer, sizeof buffer, file), nullptr);
    EXPECT_STREQ(buffer, "before");
    vxfclose(file);
  }
}

TEST(Utf8Streams, ATransparentLineThatDoesNotFitHasBeenRead) {
  FILE* file = file_of("long\xE9\nnext\n");
  char buffer[8];
  errno = 0;
  EXPECT_EQ(vx_fgetmbts(buffer, sizeof buffer, file), nullptr);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_STREQ(vx_fgetmbts(buffer, sizeof buffer, file), "next\n");
  vxfclose(file);
}

TEST(Utf8Marks, TenOfThem) {
  for (int twice = 0; twice < 220; ++twice) utf8_fd(100 + twice / 20);
  EXPECT_TRUE(utf8_is_marked(100) && utf8_is_marked(109) && !utf8_is_marked(110));
  user_fd(104);
  utf8_fd(110);
  EXPECT_TRUE(utf8_is_marked(103) && !utf8_is_marked(104) && utf8_is_marked(109) &&
              utf8_is_marked(110) && vxclose(110) == -1 && !utf8_is_marked(110));
  for (int descriptor = 100; descriptor < 110; ++descriptor) user_fd(descriptor);
  for (int descriptor : {-1, 0}) utf8_fd(descriptor);
  EXPECT_TRUE(utf8_is_marked(0) && !utf8_is_marked(-1));
  user_fd(0);
  FILE* child = popen("exit 3", "r");
  const int descriptor = fileno(child);
  utf8_fp(child);
  EXPECT_TRUE(WEXITSTATUS(vxpclose(child)) == 3 && !utf8_is_marked(descriptor));
  FILE* file = tmpfile();
  utf8_fp(file);
  EXPECT_TRUE(fileno(file) == descriptor && vxfclose(file) == 0 && !utf8_is_marked(descriptor));
}

}  // namespace
