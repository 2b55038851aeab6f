// The state of the system daemon.
#pragma once

extern "C" {

// Stores the state of the daemon's status item number `item` in `*state`.
// Returns 0 on success (an item that the daemon has not published has state 0), -1 on failure, with
// `*state` as it was.
int KIVOScemdStatusGet(int item, int* state);
}
