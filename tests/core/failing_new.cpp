#include "tests/core/failing_new.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constexpr int kOff = -1;
constexpr int kFailed = -2;
int left = kOff;  // before the one that fails

bool Fails() {
  if (left < 0) return false;
  left = left == 0 ? kFailed : left - 1;
  return left == kFailed;
}

}  // namespace

namespace nodelink::test {

void FailNewAfter(int number) { left = number; }

bool StopFailingNew() {
  const bool failed = left == kFailed;
  left = kOff;
  return failed;
}

}  // namespace nodelink::test

void* operator new(std::size_t size) {
  void* block = Fails() ? nullptr : std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Fails() ? nullptr : std::malloc(size);
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
