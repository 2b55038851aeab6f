// The account servers of this device, for platform programs in C. Declared with the platform's
// calls because those programs know it from there; the nodelink library defines it.
#pragma once

extern "C" {

// Base URLs, "https://" and a host name, NUL-terminated, cut to 2047 bytes.
struct KIVOZOMI_SERVER_CONFIG {
  char payment_host[2048];
  char account_host[2048];
};

// Fills `config`. Returns 0 on success; -1 with the process's last error code set: 1 for a null
// `config`, else the code of the failure.
int KIVOZOMIServerConfigGet(KIVOZOMI_SERVER_CONFIG* config);
}
