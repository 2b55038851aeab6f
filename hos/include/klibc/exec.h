// Running another program.
#pragma once

extern "C" {

// Runs the program `path` with the arguments that follow (the program's own name is added by the
// platform; the list ends with a null pointer), waits for it and gives its exit status (0 to 255;
// 128 plus the signal for a program that a signal ended). Standard streams of the program are
// /dev/null, its signals have their default actions, its environment is a fixed one, and no
// descriptor of the caller is inherited. `flags` is 0xBB. Returns a negative
// number when the program cannot be started.
int KLIBCExecl(const char* path, int flags, ...) __attribute__((sentinel));
}
