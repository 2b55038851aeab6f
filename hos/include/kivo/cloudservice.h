// The cloud-service library: the device's MAC address as the cloud knows it, and its API key.
#pragma once

extern "C" {

// Writes the device's MAC address ("aa:bb:cc:dd:ee:ff") into `buffer` of `size` bytes,
// NUL-terminated. Returns 0 or a positive number on success, a negative number when there is none.
int KIVOHsinfoCloudServiceGetMacAddress(char* buffer, int size);

// Writes the device's API key, NUL-terminated, into `buffer`, which holds at least 1024 bytes. With
// `register_missing` 1 a key is registered with the cloud service when none is stored.
// Returns 0 or a positive number on success; a negative number on failure, with the reason in
// KIVOCloudServiceGetErrorCode.
int KIVOCloudServiceGetApiKey(char* buffer, int register_missing);

// Registers a new API key with the cloud service, stores it and writes it into `buffer` as above.
int KIVOCloudServiceRegisterApiKey(char* buffer);

// Why the last call about the API key failed: 0 it did not, 1 the network failed, any other number
// a refusal, a bad answer or a device that cannot ask or cannot store the key.
int KIVOCloudServiceGetErrorCode(void);

// Runs a cloud-service action; 2 drops the stored API key, so that the next read registers a new
// one. Returns 0 or a positive number on success, a negative number on failure.
int KIVOCloudServiceActionHandler(int action);
}
