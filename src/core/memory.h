// How the programs use memory.
#pragma once

#include <malloc.h>

namespace nodelink {

// Gives every large block back to the system when it is freed. By itself the C library keeps more
// the larger the blocks have been, and a server's answer can be large.
inline void ReturnLargeBlocks() {
  constexpr int kLarge = 128 * 1024;
  mallopt(M_MMAP_THRESHOLD, kLarge);
}

}  // namespace nodelink
