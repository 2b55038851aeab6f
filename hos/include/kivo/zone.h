// The device's time zone.
#pragma once

#include "klibc/szhash.h"

extern "C" {

// Writes the name of the device's zone into `buffer` of `size` bytes. `*needed` receives the bytes
// that the name takes with its NUL; it is left alone when the name is not known. Returns 0 or a
// positive number on success; a negative number when the zone is not known or the buffer is too
// small.
int KIVOZoneGet(char* buffer, int size, int* needed);

// Sets the facts of the zone `zone` in `info`: "nameInTZDB" (name in the time-zone database) and
// "utcOffset" (seconds east of UTC now, decimal).
// Returns the number of facts (1 or more) on success, 0 or a negative number when the zone is not
// in the zone table.
int KIVOZoneGetInfo(const char* zone, KLIBCSZHASH* info);
}
