// What the tests of the account record share.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "account/account_files.h"
#include "core/error_code.h"
#include "core/zomi_exception.h"
#include "tests/support/fail_each_call.h"
#include "tests/support/platform_fixture.h"
#include "tests/support/test_name.h"

namespace nodelink {

// Mode, owner and group of the record, as "600 0:0"; "none" when there is none.
inline std::string RecordProtection() {
  struct stat status {};
  if (stat(account_files::kRecord, &status) != 0) return "none";
  constexpr unsigned int kOctal = 8;
  std::string mode;
  for (unsigned int rest = status.st_mode & 07777U; rest != 0; rest /= kOctal) {
    mode.insert(0, std::to_string(rest % kOctal));
  }
  return mode + " " + std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
}

// The code of the ZomiException that `flow` throws, 0 when it throws none.
template <typename Flow>
std::uint32_t CodeThrownBy(Flow flow) {
  try {
    flow();
  } catch (const ZomiException& failure) {
    return failure.code();
  }
  return kSuccess;
}

}  // namespace nodelink
