// Key-value files: text files of lines `key="value"`.
//
// A value may also stand without quotes. With quotes it runs from the first to the last double
// quote of its line; nothing is escaped. Blank lines and lines that begin with '#' are no keys and
// are kept by every write. White space around a key, a separator and a value does not count, nor
// does a carriage return at a line's end, unless it stands between the quotes. When a key stands on
// several lines, the first counts. A file of more than 1 MiB is no key-value file and cannot be
// read.
#pragma once

#include "klibc/szhash.h"
#include "klibc/szlist.h"

extern "C" {

// Reads the value of `key` in the file `path` into `buffer` of `size` bytes. A longer value is cut
// to size - 1 bytes; the text always ends in NUL. `flags` is 0. Returns the length of the text in
// the buffer; 0 when the file, the key or the value is missing or the value is empty (the buffer
// then holds ""); a negative number on an error (null argument, size below 1, file not readable).
int KLIBCFileGetKeyValue(const char* path, const char* key, char* buffer, int size, int flags);

// Sets `key` to `value`: replaces the first line of the key, or appends one, written with the
// printf format `line_format`, which takes the key and the value as two %s (normally
// "%s=\"%s\"\n") and holds no other conversion. The file
// is replaced atomically: at every moment a reader, or a machine that lost power, sees the whole
// old or the whole new file, and when the call returns the new one is on disk. Writers of one file
// are serialised, so two processes that set different keys both keep theirs. Mode and owner of an
// existing file are kept; a new one has mode 0600. The folder must exist.
// Returns 0 or a positive number on success; a negative number on failure, with the file as it was:
// a null argument, an empty key, a key or value that would not be read back as it is (line break in
// either; '=' in the key, '#' before it, white space at its ends), a path that is a symbolic link
// or no file, a file or folder that cannot be written, another writer that holds the folder for 30
// seconds.
int KLIBCFileSetKeyValue(const char* path, const char* key, const char* value,
                         const char* line_format);

// Tells whether `key` in the file `path` has exactly the value `value`. `flags` is 0.
// Returns 1 when it has; 0 when it has another value or the key or the file is missing; a negative
// number when the file could not be read.
int KLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int flags);

// Reads the keys that `keys` lists from the file `path` into `values`; a key that the file does not
// hold is not set. `separator` stands between key and value (normally "=").
// Returns the number of keys found (0 or more); a negative number when an argument is null or the
// file is missing or cannot be read.
int KLIBCFileGetKeys(const char* path, KLIBCSZLIST* keys, KLIBCSZHASH* values,
                     const char* separator);
}
