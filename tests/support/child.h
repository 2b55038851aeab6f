// Running part of a test in a process of its own: one that may give up its privileges.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

// Runs `flow` in a child process and gives the text that it returns. The child ends without any
// destructor of the parent's objects. Throws std::runtime_error when it does not come to its end.
std::string RunInChild(const std::function<std::string()>& flow);

// Returns when every other thread of this process waits for an event. A child that is forked while
// one of them is at work inherits whatever lock of the memory allocator it holds, and would wait
// for it for ever.
void WaitUntilOtherThreadsWait();

struct Ids {
  uid_t real_user = 0;
  uid_t effective_user = 0;
  uid_t saved_user = 0;
  gid_t real_group = 0;
  gid_t effective_group = 0;
  gid_t saved_group = 0;
  bool operator==(const Ids&) const = default;
};

Ids CurrentIds();

// Sets all six. Throws std::runtime_error when that is refused.
void BecomeIds(const Ids& ids);
