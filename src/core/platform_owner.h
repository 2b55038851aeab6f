// Owners of what the platform's functions allocate.
#pragma once

#include <cstdlib>
#include <memory>

#include "klibc/szhash.h"
#include "klibc/szlist.h"

namespace nodelink {

struct PlatformFree {
  void operator()(KLIBCSZHASH* hash) const { KLIBCSzHashFree(hash); }
  void operator()(KLIBCSZLIST* list) const { KLIBCSzListFree(list); }
};

using SzHash = std::unique_ptr<KLIBCSZHASH, PlatformFree>;
using SzList = std::unique_ptr<KLIBCSZLIST, PlatformFree>;

struct HeapFree {
  void operator()(void* block) const { std::free(block); }
};

// A text in a heap block that free() releases.
using HeapText = std::unique_ptr<char, HeapFree>;

}  // namespace nodelink
