#include "hos/linux/szhash.h"

#include <algorithm>

#include "hos/linux/error.h"
#include "klibc/szlist.h"

namespace hos_linux {
namespace {

template <typename Hash>
auto Find(Hash& hash, const char* key) {
  return std::find_if(hash.entries.begin(), hash.entries.end(),
                      [key](const auto& entry) { return entry.first == key; });
}

void Set(KLIBCSZHASH& hash, const char* key, const char* value) {
  const auto entry = Find(hash, key);
  if (entry == hash.entries.end()) {
    hash.entries.emplace_back(key, value);
  } else {
    entry->second = std::string(value);
  }
}

int EnumKeys(const KLIBCSZHASH& hash, KLIBCSZLIST* keys) {
  for (const auto& [key, value] : hash.entries) {
    if (KLIBCSzListPush(keys, key.c_str()) < 0) return -1;
  }
  return static_cast<int>(hash.entries.size());
}

}  // namespace
}  // namespace hos_linux

extern "C" {

KLIBCSZHASH* KLIBCSzHashAlloc(int size) {
  if (size < 0) {
    hos_linux::SetError(hos_linux::kBadArgument);
    return nullptr;
  }
  return hos_linux::PlatformCall<KLIBCSZHASH*>(nullptr, [] { return new KLIBCSZHASH; });
}

int KLIBCSzHashSetValue(KLIBCSZHASH* hash, const char* key, const char* value) {
  if (hash == nullptr || key == nullptr || value == nullptr) {
    return hos_linux::MinusOne(hos_linux::kBadArgument);
  }
  return hos_linux::PlatformCall(-1, [=] {
    hos_linux::Set(*hash, key, value);
    return 0;
  });
}

const char* KLIBCSzHashGetValue(const KLIBCSZHASH* hash, const char* key) {
  if (hash == nullptr || key == nullptr) return nullptr;
  const auto entry = hos_linux::Find(*hash, key);
  return entry == hash->entries.end() ? nullptr : entry->second.c_str();
}

int KLIBCSzHashEnumKey(const KLIBCSZHASH* hash, KLIBCSZLIST* keys) {
  if (hash == nullptr || keys == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::EnumKeys(*hash, keys);
}

void KLIBCSzHashFree(KLIBCSZHASH* hash) { delete hash; }
}
