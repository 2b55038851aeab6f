#include "klibc/szlist.h"

#include <string>
#include <vector>

#include "hos/linux/error.h"

struct KLIBCSZLIST {
  std::vector<std::string> texts;
};

extern "C" {

KLIBCSZLIST* KLIBCSzListAlloc(int size) {
  if (size < 0) {
    hos_linux::SetError(hos_linux::kBadArgument);
    return nullptr;
  }
  return hos_linux::PlatformCall<KLIBCSZLIST*>(nullptr, [] { return new KLIBCSZLIST; });
}

int KLIBCSzListPush(KLIBCSZLIST* list, const char* text) {
  if (list == nullptr || text == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] {
    list->texts.emplace_back(text);
    return static_cast<int>(list->texts.size()) - 1;
  });
}

const char* KLIBCSzListGet(const KLIBCSZLIST* list, int index) {
  if (list == nullptr || index < 0) return nullptr;
  const auto position = static_cast<std::size_t>(index);
  return position < list->texts.size() ? list->texts[position].c_str() : nullptr;
}

void KLIBCSzListFree(KLIBCSZLIST* list) { delete list; }
}
