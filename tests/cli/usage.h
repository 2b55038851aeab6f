// What the command prints when it is told nothing to do, to the byte. It stands in
// nodelink_test.cpp, beside the tables of options that change with it.
#pragma once

extern const char* const kUsage;
