// String list: an ordered list of texts that owns copies of what is pushed into it.
#pragma once

struct KLIBCSZLIST;

extern "C" {

// Makes an empty list with room for `size` texts to begin with; it grows as needed.
// Returns null when there is no memory. The caller frees it with KLIBCSzListFree.
KLIBCSZLIST* KLIBCSzListAlloc(int size);

// Appends a copy of `text`. Returns the index of the new text, negative on failure.
int KLIBCSzListPush(KLIBCSZLIST* list, const char* text);

// The text at `index`, counted from 0; null when there is none. It belongs to the list and lives
// until the list is changed or freed.
const char* KLIBCSzListGet(const KLIBCSZLIST* list, int index);

// Frees the list and its texts. Null is ignored.
void KLIBCSzListFree(KLIBCSZLIST* list);
}
