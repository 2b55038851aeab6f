// The inside of the string hash, for this library's own readers of it.
#pragma once

#include <deque>
#include <string>
#include <utility>

#include "klibc/szhash.h"

// Small and read in its order: the hashes of this system hold a few dozen keys. A deque, so that a
// value that was handed out stays where it is while keys are added.
struct KLIBCSZHASH {
  std::deque<std::pair<std::string, std::string>> entries;
};
