// Memory that runs out, for what this test program allocates with new.
#pragma once

namespace nodelink::test {

// From now on `number` allocations succeed and the next one throws std::bad_alloc, once.
void FailNewAfter(int number);

// Ends that; true when the allocation has failed.
bool StopFailingNew();

}  // namespace nodelink::test
