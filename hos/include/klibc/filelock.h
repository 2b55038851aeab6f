// Advisory locks between processes on a named file.
#pragma once

extern "C" {

// Tries once, without waiting, to take the lock of the existing file `path`. `exclusive` 1 asks for
// the exclusive lock (this system never asks for another). Returns non-zero when the lock is held
// and stores its handle in `*fd`; 0 when somebody else holds it, the file cannot be opened, or
// another file has taken its place at `path` by the time it is locked, with `*fd` as it was. The
// lock ends with KLIBCFileUnlockByFile or with the process; children do not inherit it.
int KLIBCFileLockByFile(const char* path, int exclusive, int* fd);

// Releases the lock and closes its handle. Returns non-zero on success. The file stays.
int KLIBCFileUnlockByFile(int fd);
}
