// The accounts of the torture's cloud.
#pragma once

namespace torture {

struct Person {
  const char* email;
  const char* password;
  const char* schedule;  // that the server gives the person's devices
};

inline constexpr Person kAnna{"anna@example.org", "correct horse", "30 3 * * 6"};
inline constexpr Person kBen{"ben@example.org", "battery staple", "31 4 * * 5"};
inline constexpr Person kCarla{"carla@example.org", "purple monkey", "32 5 * * 4"};

}  // namespace torture
