// The account record. Input: the text of the file.
#include "account/account_data.h"
#include "account/account_files.h"
#include "account/record_keys.h"
#include "account/user.h"
#include "fuzz/property.h"
#include "lab/files.h"
#include "tests/fake_hos/fake_hos.h"

namespace {

using nodelink::AccountData;
using nodelink::User;
namespace record = nodelink::record;

// One by one, texts are cut.
std::string Cut(const std::string& text) { return text.substr(0, 2047); }

void CheckSame(const AccountData& data) {
  const User user;
  fuzz::Check(Cut(data.zomi_id) == user.Get(record::kZomiId) &&
                  Cut(data.zomi_id_serial) == user.Get(record::kZomiIdSerial) &&
                  Cut(data.hs_auth_key) == user.Get(record::kHsAuthKey) &&
                  Cut(data.account_host) == user.Get(record::kAccountHost) &&
                  Cut(data.report_cron_timestring) == user.Get(record::kReportCronTimestring),
              "texts are the same, read at once or one by one");
  fuzz::Check(data.last_query_time == user.Get(record::kLastQueryTime), "so are numbers");
  fuzz::Check(data.activated == user.Get(record::kActivated) &&
                  data.realname_validation_pass == user.Get(record::kRealnameValidationPass),
              "so are flags");
  fuzz::Check(user.HasAccount() == !data.zomi_id.empty(), "an account is one with a name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fake_hos::platform().Reset();
  test_files::Write(nodelink::account_files::kRecord, std::string(data, data + size));
  AccountData account;
  fuzz::Check(nodelink::ReadAccountData(account) == 0, "any text reads as a record");
  CheckSame(account);
  fuzz::Check(fake_hos::platform().live_objects() == 0, "nothing of the platform's is kept");
  return 0;
}
