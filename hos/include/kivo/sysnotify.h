// System notifications to the administrators.
#pragma once

#include "klibc/szhash.h"

extern "C" {

// Sends the notification `tag`; `params` gives the value of each placeholder of its text and may be
// empty. The hash stays the caller's.
// Returns 0 or a positive number on success, a negative number on failure.
int KIVOSysNotifySendNotifiction(const char* tag, const KLIBCSZHASH* params);
}
