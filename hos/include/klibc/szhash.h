// String hash: a map from text to text that owns copies of keys and values and lists its keys in
// the order in which they were first set.
#pragma once

#include "klibc/szlist.h"

struct KLIBCSZHASH;

extern "C" {

// Makes an empty hash with room for `size` bytes of text to begin with; it grows as needed.
// Returns null when there is no memory. The caller frees it with KLIBCSzHashFree.
KLIBCSZHASH* KLIBCSzHashAlloc(int size);

// Sets `key` to a copy of `value`; a key that is there already keeps its place.
// Returns 0 or a positive number on success, a negative number on failure (null argument, no
// memory).
int KLIBCSzHashSetValue(KLIBCSZHASH* hash, const char* key, const char* value);

// The value of `key`; null when the hash does not hold it. It belongs to the hash and lives until
// that key is set again or the hash is freed.
const char* KLIBCSzHashGetValue(const KLIBCSZHASH* hash, const char* key);

// Appends every key to `keys`, in the order in which the keys were first set.
// Returns the number of keys of the hash (0 when it is empty), a negative number on failure.
int KLIBCSzHashEnumKey(const KLIBCSZHASH* hash, KLIBCSZLIST* keys);

// Frees the hash with its keys and values. Null is ignored.
void KLIBCSzHashFree(KLIBCSZHASH* hash);
}
