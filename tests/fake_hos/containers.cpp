#include <cstdlib>
#include <cstring>

#include "klibc/string.h"
#include "klibc/szhash.h"
#include "klibc/szlist.h"
#include "tests/fake_hos/internal.h"

namespace fake_hos {
namespace {

constexpr auto kNotCounted = Platform::Counting::kNotCounted;

const std::string* FindInHash(const KLIBCSZHASH& hash, const std::string& key) {
  for (const auto& [name, value] : hash.entries) {
    if (name == key) return &value;
  }
  return nullptr;
}

bool Grow(char** buffer, std::size_t* size, std::size_t needed) {
  if (needed <= *size) return true;
  auto* grown = static_cast<char*>(std::realloc(*buffer, needed));
  if (grown == nullptr) return false;
  *buffer = grown;
  *size = needed;
  return true;
}

}  // namespace

void SetInHash(KLIBCSZHASH& hash, const std::string& key, const std::string& value) {
  for (auto& [name, old] : hash.entries) {
    if (name == key) {
      old = value;
      return;
    }
  }
  hash.entries.emplace_back(key, value);
}

}  // namespace fake_hos

using fake_hos::Failed;
using fake_hos::platform;
using fake_hos::Text;

extern "C" {

KLIBCSZHASH* KLIBCSzHashAlloc(int size) {
  if (!platform().Enter("KLIBCSzHashAlloc", {Text(size)})) return nullptr;
  platform().ObjectMade();
  return new KLIBCSZHASH;
}

int KLIBCSzHashSetValue(KLIBCSZHASH* hash, const char* key, const char* value) {
  if (!platform().Enter("KLIBCSzHashSetValue", {Text(key), Text(value)})) return -1;
  if (hash == nullptr || key == nullptr || value == nullptr) return Failed(-1);
  fake_hos::SetInHash(*hash, key, value);
  return 0;
}

const char* KLIBCSzHashGetValue(const KLIBCSZHASH* hash, const char* key) {
  if (!platform().Enter("KLIBCSzHashGetValue", {Text(key)}, fake_hos::kNotCounted)) return nullptr;
  if (hash == nullptr || key == nullptr) return Failed<const char*>(nullptr);
  const std::string* value = fake_hos::FindInHash(*hash, key);
  return value == nullptr ? nullptr : value->c_str();
}

int KLIBCSzHashEnumKey(const KLIBCSZHASH* hash, KLIBCSZLIST* keys) {
  if (!platform().Enter("KLIBCSzHashEnumKey", {})) return -1;
  if (hash == nullptr || keys == nullptr) return Failed(-1);
  for (const auto& [name, value] : hash->entries) keys->texts.push_back(name);
  return static_cast<int>(hash->entries.size());
}

void KLIBCSzHashFree(KLIBCSZHASH* hash) {
  platform().Note("KLIBCSzHashFree", {});
  if (hash == nullptr) return;
  platform().ObjectGone();
  delete hash;
}

KLIBCSZLIST* KLIBCSzListAlloc(int size) {
  if (!platform().Enter("KLIBCSzListAlloc", {Text(size)})) return nullptr;
  platform().ObjectMade();
  return new KLIBCSZLIST;
}

int KLIBCSzListPush(KLIBCSZLIST* list, const char* text) {
  if (!platform().Enter("KLIBCSzListPush", {Text(text)})) return -1;
  if (list == nullptr || text == nullptr) return Failed(-1);
  list->texts.emplace_back(text);
  return static_cast<int>(list->texts.size()) - 1;
}

const char* KLIBCSzListGet(const KLIBCSZLIST* list, int index) {
  if (!platform().Enter("KLIBCSzListGet", {Text(index)}, fake_hos::kNotCounted)) return nullptr;
  if (list == nullptr || index < 0 || static_cast<std::size_t>(index) >= list->texts.size()) {
    return nullptr;
  }
  return list->texts[static_cast<std::size_t>(index)].c_str();
}

void KLIBCSzListFree(KLIBCSZLIST* list) {
  platform().Note("KLIBCSzListFree", {});
  if (list == nullptr) return;
  platform().ObjectGone();
  delete list;
}

int KLIBCStrCat(char** buffer, size_t* size, const char* text) {
  if (!platform().Enter("KLIBCStrCat", {Text(text)})) return -1;
  if (buffer == nullptr || *buffer == nullptr || size == nullptr || text == nullptr) {
    return Failed(-1);
  }
  const std::size_t old_length = std::strlen(*buffer);
  const std::size_t added = std::strlen(text);
  if (!fake_hos::Grow(buffer, size, old_length + added + 1)) return Failed(-1);
  std::memcpy(*buffer + old_length, text, added + 1);
  return 0;
}

int KLIBCStrTrimSpace(char* text) {
  if (!platform().Enter("KLIBCStrTrimSpace", {Text(text)})) return -1;
  if (text == nullptr) return Failed(-1);
  const std::string whole(text);
  constexpr char kSpace[] = " \t\r\n\v\f";
  const std::size_t first = whole.find_first_not_of(kSpace);
  const std::string trimmed = first == std::string::npos
                                  ? ""
                                  : whole.substr(first, whole.find_last_not_of(kSpace) - first + 1);
  return fake_hos::CopyOut(trimmed, text, static_cast<int>(whole.size()) + 1);
}
}
