// Three texts joined to one, for messages put together from parts.
#pragma once

#include <cstddef>

constexpr size_t kJoinedSize = 6144;  //!< Bytes of a joined text.
constexpr int kJoinedTexts = 200;     //!< So many results are valid at a time.

/// The three texts one after the other, cut to fit kJoinedSize bytes. A null text counts
/// as empty. The result stays valid until kJoinedTexts further calls have been made, by
/// any thread. Thread safe.
[[nodiscard]] const char* i18n_3(const char* first, const char* second, const char* third);
