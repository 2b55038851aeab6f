#include "devcloud/state/held_answers.h"

#include <algorithm>

namespace devcloud {

std::shared_ptr<const Event> HeldAnswers::Hold(const Request& request) {
  auto event = std::make_shared<Event>();
  const std::lock_guard lock(mutex_);
  entries_.push_back({{++last_id_, request.method, request.path}, event});
  changed_.notify_all();
  return event;
}

std::vector<HeldAnswer> HeldAnswers::ListLocked() {
  entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                [](const Entry& entry) { return entry.event.expired(); }),
                 entries_.end());
  std::vector<HeldAnswer> answers;
  for (const Entry& entry : entries_) answers.push_back(entry.answer);
  return answers;
}

std::vector<HeldAnswer> HeldAnswers::List() {
  const std::lock_guard lock(mutex_);
  return ListLocked();
}

std::vector<HeldAnswer> HeldAnswers::WaitAndList(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, limit, [this] { return closed_ || !ListLocked().empty(); });
  return ListLocked();
}

bool HeldAnswers::Release(std::int64_t id) {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [id](const Entry& entry) { return entry.answer.id == id; });
  if (found == entries_.end()) return false;
  const auto event = found->event.lock();
  entries_.erase(found);
  if (!event) return false;
  event->Signal();
  return true;
}

void HeldAnswers::ReleaseAll() {
  for (const HeldAnswer& answer : List()) Release(answer.id);
}

void HeldAnswers::Close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace devcloud
