// What a power failure could leave of a recorded run's files.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "lab/torture/device_state.h"
#include "lab/torture/trace.h"

namespace torture {

// The calls to record: whatever may change a file or a name. What is not listed is not seen.
inline constexpr char kFileCalls[] =
    "open,openat,openat2,creat,write,writev,pwrite64,pwritev,pwritev2,ftruncate,truncate,fallocate,"
    "copy_file_range,sendfile,splice,fsync,fdatasync,sync_file_range,rename,renameat,renameat2,"
    "link,linkat,symlink,symlinkat,unlink,unlinkat,rmdir,mkdir,mkdirat,mknod,mknodat,chmod,fchmod,"
    "fchmodat,mmap";

struct DiskState {
  std::string name;  // "NNN-strict" or "NNN-names"
  std::string at;    // the call before
  Files files;
};

struct PowerLoss {
  std::vector<DiskState> states;        // each differs from all before
  std::vector<std::string> at_the_end;  // the files that may be lost or come back then
};

// The states between the calls of the record, when the files of `folders` were `start` before, and
// durable:
//
//   strict  only what was made durable: data by fsync of the file, names by fsync of the folder
//   names   names (and cuts) ahead of data: every name as it was, and under it the durable data
//   only
//
// Throws std::runtime_error when the record has a call that this model does not know.
PowerLoss CutPower(const Trace& trace, const Files& start, const std::set<std::string>& folders);

}  // namespace torture
