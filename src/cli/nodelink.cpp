#include "cli/nodelink.h"

#include <getopt.h>

#include <array>
#include <cstdio>

#include "account/account_data.h"
#include "account/account_service.h"
#include "core/error_code.h"
#include "core/json.h"
#include "core/log.h"
#include "core/zomi_exception.h"
#include "deviceapi/zomi_account_query_info.h"
#include "deviceapi/zomi_report_info.h"
#include "kivo/scemd.h"
#include "klibc/exec.h"
#include "pkce/account_pkce_service.h"

namespace nodelink {
namespace {

struct Options {
  bool report = false;
  bool notify = false;
  bool query = false;
  bool cache = false;
  bool logout = false;
  bool update = false;
};

constexpr std::array kLongOptions = {
    option{"report_info", no_argument, nullptr, 'r'},
    option{"notify_logout", no_argument, nullptr, 'n'},
    option{"query_account", no_argument, nullptr, 'q'},
    option{"cache", no_argument, nullptr, 'c'},
    option{"logout", no_argument, nullptr, 'l'},
    option{"update", no_argument, nullptr, 'u'},
    option{"help", no_argument, nullptr, 'h'},
    option{nullptr, 0, nullptr, 0},
};

constexpr char kUsage[] =
    "Usage: nodelink (Version 25556)\n"
    "  -r, --report_info      Report HS version info to Veltrix\n"
    "  -n, --notify_logout    Notify user zomi is logged out\n"
    "  -q, --query_account    Query user account info\n"
    "  -c, --cache            Using cache when query_account\n"
    "  -l, --logout           Logout user account\n"
    "  -u, --update           Update crond job\n"
    "  -h, --help             Show help\n";

// What is not an option is ignored, and what the parser complains of it has said on standard error.
void SetOption(Options& options, int letter) {
  switch (letter) {
    case 'r': options.report = true; break;
    case 'n': options.notify = true; break;
    case 'q': options.query = true; break;
    case 'c': options.cache = true; break;
    case 'l': options.logout = true; break;
    case 'u': options.update = true; break;
    default: break;
  }
}

// The single-letter forms of the usage text are prefixes of the long options; none is declared.
Options ParseOptions(int argc, char** argv) {
  Options options;
  int letter = 0;
  while ((letter = getopt_long_only(argc, argv, "", kLongOptions.data(), nullptr)) != -1) {
    SetOption(options, letter);
  }
  return options;
}

// The system daemon's state in which there is nothing to report.
constexpr int kDaemonItem = 1;
constexpr int kNoReportState = 2;

int Report() {
  int state = kNoReportState;
  if (KIVOScemdStatusGet(kDaemonItem, &state) == -1) LogError(Here(), "KIVOScemdStatusGet failed");
  if (state == kNoReportState) return 0;
  if (ReportDeviceInfo() < 0) {
    LogError(Here(), "Failed to report Zomi info, code=%u", LastErrorCode());
    return -1;
  }
  return 0;
}

// The notice leads into the account tab of the administration centre. Its texts are keys of the
// platform's string table.
void NotifyLogout() {
  AccountData account;
  if (ReadLinkedAccountData(account) < 0) return;
  constexpr int kExecFlags = 0xBB;
  if (KLIBCExecl("/usr/kivo/bin/kivohosnotify", kExecFlags, "-e", "false", "-c",
                 "KIVO.WEB.AdminCenter.Application", "@administrators", "zomi:zomi_center",
                 "zomi:notify_hs_migrated",
                 "<a data-kivo-app=\"KIVO.WEB.AdminCenter.Application\" "
                 "data-kivo-fn=\"KIVO.WEB.AdminCenter.InfoCenter.Main\" "
                 "data-kivo-tab=\"account\">",
                 "</a>", static_cast<char*>(nullptr)) < 0) {
    LogError(Here(), "Fail to exec /usr/kivo/bin/kivohosnotify");
  }
}

void Query(Refresh refresh) {
  Json::Value account(Json::objectValue);
  if (ZomiAccountQueryInfo(account, refresh, Quick::kNo) < 0) {
    std::printf("Query account failed");
    return;
  }
  std::printf("%s\n", json::toString(account).c_str());
}

void Logout() {
  try {
    AccountPkceServiceImpl().Logout(AccessToken::kInclude);
  } catch (const ZomiException& failure) {
    std::printf("Failed to logout: %s", failure.what());
  }
}

void Update() {
  try {
    AccountService().updateCrondJob();
  } catch (const ZomiException& failure) {
    std::printf("Failed to update crond: %s", failure.what());
  }
}

}  // namespace

int RunCommand(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  if (options.report) return Report();
  if (options.notify) {
    NotifyLogout();
  } else if (options.query) {
    Query(options.cache ? Refresh::kNo : Refresh::kYes);
  } else if (options.logout) {
    Logout();
  } else if (options.update) {
    Update();
  } else {
    std::fputs(kUsage, stdout);
  }
  return 0;
}

}  // namespace nodelink
