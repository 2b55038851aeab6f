// What the program allocates for its objects, overwritten when it is given back: a string may have
// held a copy of the password.
#include <malloc.h>
#include <string.h>

#include <cstdlib>
#include <new>

void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void operator delete(void* block) noexcept {
  if (block != nullptr) explicit_bzero(block, malloc_usable_size(block));
  std::free(block);
}

void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
