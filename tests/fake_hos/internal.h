// What the sources of the scripted platform share.
#pragma once

#include <deque>
#include <string>
#include <utility>

#include "tests/fake_hos/fake_hos.h"

// Deques: a text handed out stays where it is when more are added.
struct KLIBCSZLIST {
  std::deque<std::string> texts;
};

struct KLIBCSZHASH {
  std::deque<std::pair<std::string, std::string>> entries;
};

namespace fake_hos {

inline std::string Text(const char* text) { return text == nullptr ? "(null)" : text; }
inline std::string Text(long number) { return std::to_string(number); }

// Sets the error triple and gives `result`.
template <typename T>
T Failed(T result) {
  platform().SetError();
  return result;
}

// Copies `text` into a buffer of `size` bytes (1 or more), cut to fit; gives the length.
int CopyOut(const std::string& text, char* buffer, int size);

void SetInHash(KLIBCSZHASH& hash, const std::string& key, const std::string& value);

}  // namespace fake_hos
