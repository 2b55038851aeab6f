// The device token "hs_token": a digest that the server recomputes from the serial number and the
// account credentials that travel beside it.
#pragma once

#include <cstddef>

namespace nodelink {

inline constexpr std::size_t kDeviceTokenSize = 33;  // 32 lower-case hex digits and a NUL

// Writes the token of the serial number, the account ID and the password, joined, into `token`.
// `account_id` and `password` may be null. An empty serial buffer is filled with the device's
// serial number first; one that holds a serial number is used as it is. A serial number must begin
// with an ASCII letter or digit. Returns 0, or -1 (logged).
[[nodiscard]] int DeviceTokenGenerate(const char* account_id, const char* password, char* serial,
                                      std::size_t serial_size, char* token, std::size_t token_size);

// Writes the device's serial number, at most 35 characters, into `buffer`. Returns 0, or -1
// (logged).
[[nodiscard]] int DeviceSerialNumberGet(char* buffer, std::size_t size);

// The iterated digest: k + 1 rounds of x = MD5(x + MD5(x)), k being the first hex digit of
// MD5(text). Texts are cut at 4095 bytes. Returns 0, or -1 (logged).
[[nodiscard]] int TokenHashRounds(const char* text, char* output, std::size_t size);

// Writes the MD5 of `text` as 32 lower-case hex digits and a NUL, cut to `size` bytes. Returns 0;
// -1 when `text` is null, `size` is below 32, or the digest fails.
[[nodiscard]] int Md5Hex(const char* text, char* output, std::size_t size);

}  // namespace nodelink
