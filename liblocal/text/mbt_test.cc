#include "liblocal/text/mbt.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Mbt, EveryByteThereAndBack) {
  std::string raw;
  std::string wanted;
  for (int byte = 1; byte < 256; ++byte) {
    raw += static_cast<char>(byte);
    if (byte >= 0x80) wanted += byte < 0xC0 ? "\xEF\xA2" : "\xEF\xA3";
    wanted += static_cast<char>(byte < 0x80 ? byte : byte & 0xBF);
  }
  char carried[1024];
  char back[256];
  ASSERT_EQ(vx_mbstombts(carried, raw.c_str(), sizeof carried), 1);
  EXPECT_EQ(carried, wanted);
  ASSERT_EQ(vx_mbtstombs(back, carried, sizeof back), 1);
  EXPECT_EQ(back, raw);
  EXPECT_EQ(vx_mbtstombs(back, carried, sizeof back - 1), 0);
}

TEST(Mbt, Room) {
  const struct {
    std::string raw;
    size_t least;  // bytes that the transparent form asks for
  } cases[] = {{"", 1}, {"\x41\xE9", 5}, {"\xE9\x41", 5}, {"\xE9\xE9", 7}};
  for (const auto& [raw, least] : cases) {
    for (size_t size = 0; size <= least + 1; ++size) {
      char output[9];
      output[size] = '!';
      EXPECT_EQ(vx_mbstombts(output, raw.c_str(), size), size >= least ? 1 : 0) << raw << size;
      EXPECT_EQ(output[size], '!');
    }
  }
}

TEST(Mbt, WhatIsOne) {
  const struct {
    const char* text;
    int contains;
    int restores;
  } cases[] = {
      {"a\xEF\xA3\xBFz", 1, 1},          {"\xEF\xA1\x80", 0, 0}, {"\xEF\xA2", 0, 0}, {"é", 0, 0},
      {"\xEF\xA2z\xEF\xA2\x80", 0, 0},  // the first one decides
      {"\xEF\xBC\x81\xEF\xA2\x80", 1, 0}};
  char output[16];
  for (const auto& [text, contains, restores] : cases) {
    EXPECT_EQ(containsMBT(text), contains) << testing::PrintToString(text);
    EXPECT_EQ(vx_mbtstombs(output, text, sizeof output), restores) << testing::PrintToString(text);
  }
}

}  // namespace
