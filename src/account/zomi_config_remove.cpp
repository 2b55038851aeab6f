#include "account/zomi_config_remove.h"

#include "account/account_files.h"
#include "account/privilege_guard.h"
#include "core/log.h"
#include "core/platform_owner.h"
#include "klib/plugin.h"

namespace nodelink {
namespace {

constexpr unsigned int kLogoutAction = 4;

// A record that is not there counts as removed.
int RemoveRecord() {
  return RunPrivileged(Here(), [] { (void)account_files::RemoveRecord(); }) ? 0 : -1;
}

int AnnounceAndRemove(KLIBPLUGIN* plugin) {
  if (KLIBPluginAction(kLogoutAction, plugin) < 0) {
    LogError(Here(), "KLIBPluginAction failed, action=%u", kLogoutAction);
    return -1;
  }
  return RemoveRecord();
}

}  // namespace

int ZomiConfigRemove() {
  KLIBPLUGIN* plugin = nullptr;
  if (KLIBPluginSDKInit("zomi", "zomi/logout", &plugin, nullptr) < 0) {
    LogError(Here(), "KLIBPluginSDKInit failed");
    return -1;
  }
  const PluginOwner owner(plugin);
  return AnnounceAndRemove(plugin);
}

}  // namespace nodelink
