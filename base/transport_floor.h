// What every request of a program that talks to the network keeps to, whatever a configured address
// and the system's OpenSSL settings would allow: HTTPS by HTTP/1.1 and without a proxy, TLS 1.2 and
// OpenSSL's security level 2 (keys of 112 bits of security, no SHA-1 signatures), and the servers
// are those that the system's CA bundle vouches for, which is read once.
//
// A program that links nodelink_transport_floor has all its transfers begin here: the linker sends
// its calls of curl_easy_perform to this function, which sets the floor and makes the call. What
// cannot be set fails the transfer.
#pragma once

#include <curl/curl.h>

extern "C" CURLcode __wrap_curl_easy_perform(CURL* curl);
