// The system log that administrators read.
#pragma once

extern "C" {

// Writes one event: log type, level, event code and four texts ("" when unused, never null).
// Returns 0 or a positive number on success, a negative number on failure.
int KIVOLogSet1(int type, int level, unsigned int event, const char* text1, const char* text2,
                const char* text3, const char* text4);
}
