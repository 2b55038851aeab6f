// The platform error triple: where and why the last failing platform call of this process failed.
//
// Every platform call that reports failure sets the triple before it returns; a call that succeeds
// leaves it alone. The program only prints it, as "[0x%04X %s:%d]".
#pragma once

extern "C" {

// Code of the last platform error; 0 when no platform call has failed yet.
int KLIBCErrGet(void);

// Base name of the platform source file that reported it; never null, "" when none. Static text.
const char* KLIBCErrorGetFile(void);

// Line in that file; 0 when none.
int KLIBCErrorGetLine(void);
}
