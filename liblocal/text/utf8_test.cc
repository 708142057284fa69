#include "liblocal/text/utf8.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

using testing::ElementsAre;

// A stream without a buffer of its own.
FILE* file_of(const std::string& bytes) {
  FILE* file = tmpfile();
  setvbuf(file, nullptr, _IONBF, 0);
  fwrite(bytes.data(), 1, bytes.size(), file);
  rewind(file);
  return file;
}

// What vxfgets reads into a buffer of that size, up to the first null.
std::vector<std::string> pieces_of(FILE* stream, int size = 64) {
  std::vector<std::string> pieces;
  std::string buffer(static_cast<size_t>(size), '!');
  while (vxfgets(buffer.data(), size, stream) != nullptr) pieces.emplace_back(buffer.c_str());
  return pieces;
}

// The same of a file.
std::vector<std::string> pieces_of(const std::string& bytes, int size = 64) {
  FILE* file = file_of(bytes);
  errno = EBUSY;
  std::vector<std::string> pieces = pieces_of(file, size);
  EXPECT_EQ(errno, EBUSY);
  vxfclose(file);
  return pieces;
}

TEST(ConvertedStream, LinesArriveWhole) {
  const struct {
    const char* codeset;
    std::string ansi, utf8;
  } cases[] = {{"", "x", "x"},
               {"EUC-JP", "\xC6\xFC\x8F\xB0\xA1z", "日丂z"},
               {"CP1255", "xxxxxxx\xF9\xCC\xD1", "xxxxxxx\xEF\xAC\xAC"},  // of three
               {"UTF-8", "日é", "日é"}};
  for (const auto& on : cases) {
    in_locale(on.codeset, [&] {
      std::string raw, wanted;
      for (int i = 0; i < 50; ++i) {
        raw += on.ansi;
        wanted += on.utf8;
      }
      for (int size : {7, 8, 9, 150}) {
        std::string text;
        for (const std::string& piece : pieces_of(raw + "\n" + raw, size)) text += piece;
        EXPECT_EQ(text, wanted + "\n" + wanted);
      }
    });
  }
}

TEST(ConvertedStream, CharactersNeedRoom) {
  in_locale("EUC-JP", [] {
    EXPECT_THAT(pieces_of("a\xC6\xFC\n", 4), ElementsAre("a", "日", "\n"));
    EXPECT_THAT(pieces_of("\x80z\xC6\xFC\n", 2), ElementsAre("?", "z", "?", "?", "\n"));
  });
  in_locale("CP1255", [] {  // together they take three bytes
    EXPECT_THAT(pieces_of("\xF9\xCC", 3), ElementsAre("\xD7\xA9", "\xD6\xBC"));
  });
}

TEST(ConvertedStream, NulBytesArePartOfALine) {
  EXPECT_THAT(pieces_of(std::string("a\0b\nnext\n", 9)), ElementsAre("a", "next\n"));
}

TEST(ConvertedStream, WithoutMemoryALineIsLeft) {
  FILE* file = file_of("\xE9\n");
  {
    const fakes::FailingMalloc failing(0);
    char buffer[8];
    EXPECT_EQ(vxfgets(buffer, sizeof buffer, file), nullptr);
    EXPECT_EQ(vx_fgetmbts(buffer, sizeof buffer, file), nullptr);
  }
  EXPECT_THAT(pieces_of(file), ElementsAre("é\n"));
  vxfclose(file);
}

TEST(ConvertedStream, ThreadsShareAStream) {
  std::string lines;
  while (lines.size() < 4000) lines += "\xE9\xE9\xE9\n";
  FILE* file = file_of(lines);
  std::atomic<int64_t> whole = 0;
  in_threads(4, [&](int) { whole += std::ranges::count(pieces_of(file, 8), "ééé\n"); });
  EXPECT_EQ(whole, 1000);
  vxfclose(file);
}

TEST(ConvertedStream, ALineInTransparentBytes) {
  FILE* file = file_of("A\xE9\n\xE9");
  char buffer[8];
  EXPECT_STREQ(vx_fgetmbts(buffer, sizeof buffer, file), "A\xEF\xA3\xA9\n");
  EXPECT_EQ(vx_fgetmbts(buffer, 2, file), nullptr);
  EXPECT_EQ(errno, ERANGE);  // it does not fit
  EXPECT_EQ(vx_fgetmbts(buffer, sizeof buffer, file), nullptr);
  utf8_fp(file);
  vxfclose(file);
  EXPECT_THAT(pieces_of("\xE9"), ElementsAre("é"));  // the mark went with the stream
}

// What one read of a device gives: some bytes, or an error.
using DeviceRead = std::pair<std::string, int>;

// A stream over a device whose reads give `*reads`, one after the other.
FILE* device_of(std::deque<DeviceRead>* reads) {
  auto read = [](void* cookie, char* buffer, size_t size) -> ssize_t {
    auto* left = static_cast<std::deque<DeviceRead>*>(cookie);
    const auto [bytes, error] = left->front();
    left->pop_front();
    errno = error;
    return error != 0 ? -1 : static_cast<ssize_t>(bytes.copy(buffer, size));
  };
  return fopencookie(reads, "r", {read, nullptr, nullptr, nullptr});
}

TEST(ConvertedStream, AnErrorEndsAWaitAndASignalDoesNot) {
  in_locale("EUC-JP", [] {
    std::deque<DeviceRead> reads = {{"", EINTR},  {"part\x8F", 0}, {"", EAGAIN}, {"\xB0", 0},
                                    {"", EAGAIN}, {"\xA1\n", 0},   {"", EIO}};
    FILE* stream = device_of(&reads);
    EXPECT_THAT(pieces_of(stream, 4), ElementsAre("par", "t"));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_THAT(pieces_of(stream), ElementsAre("丂\n"));
    EXPECT_EQ(errno, EIO);
    vxfclose(stream);
  });
}

// Bodies run in a process of their own: they replace its standard streams.

TEST(StandardInput, LinesLoseTheirEnd) {
  in_locale("ISO-8859-15", [] {
    const std::string longest(18431, 'x');
    const std::string marked(1023, '\xE9');
    stdin = file_of("\xA4\n\n" + longest + "y\n" + marked + "\xE9\n");
    std::string buffer(18432, '!');
    EXPECT_STREQ(vxgets(buffer.data()), "€");
    EXPECT_STREQ(vxgets(buffer.data()), "");
    EXPECT_EQ(vxgets(buffer.data()), longest);
    EXPECT_STREQ(vxgets(buffer.data()), "y");
    utf8_fp(stdin);
    EXPECT_EQ(vxgets(buffer.data()), marked);
    EXPECT_STREQ(vxgets(buffer.data()), "\xE9");
    EXPECT_EQ(vxgets(buffer.data()), nullptr);
  });
}

TEST(StandardOutput, TextIsConvertedInPieces) {
  in_locale("ISO-8859-15", [] {
    const TemporaryDirectory place;
    const std::string path = place.path() + "/text";
    const std::string before(18430, 'x');  // so that a piece would end inside what follows
    stdout = fopen(path.c_str(), "w");
    EXPECT_EQ(vxfputs((before + "\xEF\xA2").c_str(), stdout), 2);  // pieces
    EXPECT_EQ(vxfputs("x", stdout), 1);
    EXPECT_EQ(vxputs("é"), 2);  // a piece and the line end
    EXPECT_EQ(vxputs(""), 1);
    EXPECT_EQ(ansi_fputs("é", stdout), 1);
    utf8_fp(stdout);
    EXPECT_EQ(vxfputs("é", stdout), 1);
    EXPECT_EQ(vxfputs(nullptr, stdout), -1);
    fflush(stdout);
    EXPECT_EQ(machine::read_file(path), before + "x\xE9\n\néé");
  });
}

TEST(StandardOutput, AFullDiskIsAnError) {
  in_locale("", [] {
    stdout = fopen("/dev/full", "w");
    setvbuf(stdout, nullptr, _IONBF, 0);
    EXPECT_EQ(vxfputs("x", stdout), -1);
    EXPECT_EQ(vxputs(""), -1);  // the line end
    EXPECT_EQ(vxputs(nullptr), -1);
  });
}

TEST(Utf8Marks, TenDescriptorsAtATime) {
  utf8_fd(0);  // takes one place, however often
  for (int descriptor = 0; descriptor <= 110; descriptor += 11) utf8_fd(descriptor);
  EXPECT_FALSE(utf8_is_marked(110));
  vxclose(44);
  utf8_fd(110);
  for (int descriptor = 0; descriptor <= 110; descriptor += 11) {
    EXPECT_EQ(utf8_is_marked(descriptor), descriptor != 44);
    user_fd(descriptor);
    EXPECT_FALSE(utf8_is_marked(descriptor));
  }
}

}  // namespace
