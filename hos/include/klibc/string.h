// Text helpers of the platform.
#pragma once

#include <stddef.h>

extern "C" {

// Appends `text` to the NUL-terminated text in the heap block `*buffer` of `*size` bytes, growing
// the block with realloc (and updating both) when it is too small. The block belongs to the caller,
// who frees it with free(). Returns 0 or a positive number on success; a negative number on failure
// (null argument, no memory), with the block and its text as they were.
int KLIBCStrCat(char** buffer, size_t* size, const char* text);

// Removes white space at both ends of `text`, in place. Returns the new length, negative when null.
int KLIBCStrTrimSpace(char* text);
}
