// Owners of what the platform's functions allocate.
#pragma once

#include <cstdlib>
#include <memory>

#include "klib/plugin.h"
#include "klibc/szhash.h"
#include "klibc/szlist.h"

namespace nodelink {

struct PlatformFree {
  void operator()(KLIBCSZHASH* hash) const { KLIBCSzHashFree(hash); }
  void operator()(KLIBCSZLIST* list) const { KLIBCSzListFree(list); }
};

using SzHash = std::unique_ptr<KLIBCSZHASH, PlatformFree>;
using SzList = std::unique_ptr<KLIBCSZLIST, PlatformFree>;

// Owner of a plug-in handle. The platform wants it back even when it is null.
class PluginOwner {
 public:
  explicit PluginOwner(KLIBPLUGIN* plugin) : plugin_(plugin) {}
  PluginOwner(const PluginOwner&) = delete;
  PluginOwner& operator=(const PluginOwner&) = delete;
  ~PluginOwner() { KLIBPluginExit(plugin_); }

 private:
  KLIBPLUGIN* plugin_;
};

struct HeapFree {
  void operator()(void* block) const { std::free(block); }
};

// A text in a heap block that free() releases.
using HeapText = std::unique_ptr<char, HeapFree>;

}  // namespace nodelink
