// Who this device is.
#pragma once

extern "C" {

// Writes the device's serial number into `buffer` of `size` bytes, cut to size - 1, NUL-terminated.
// Returns 0 or a positive number on success, a negative number when the device has none.
int KLIBGetSerialNumber(char* buffer, int size);

// Writes the device's user-agent text, "<product> HOS/<version> (<model>)", into `buffer` of `size`
// bytes, cut to size - 1, NUL-terminated.
// Returns 0 or a positive number on success; a negative number on failure, with the buffer as it
// was.
int KLIBHsinfoUserAgentGet(const char* product, char* buffer, int size);
}
