#include "platform/zomi_plugin_manager.h"

#include "core/log.h"
#include "core/platform_owner.h"
#include "klib/plugin.h"

namespace nodelink {
namespace {

void RunPluginAction(const std::string& action, unsigned int number) {
  KLIBPLUGIN* plugin = nullptr;
  const int opened = KLIBPluginSDKInit("zomi", action.c_str(), &plugin, &plugin);
  const PluginOwner owner(plugin);
  if (opened < 0) {
    LogError(Here(), "Failed to init plugin: %s", action.c_str());
  } else if (KLIBPluginAction(number, plugin) < 0) {
    LogError(Here(), "Failed to do plugin %s, action=%u", action.c_str(), number);
  }
}

}  // namespace

void RunPluginAction4(const std::string& action) { RunPluginAction(action, 4); }

void RunPluginAction5(const std::string& action) { RunPluginAction(action, 5); }

}  // namespace nodelink
