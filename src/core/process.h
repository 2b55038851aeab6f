// What the programs make of the process that they were started as.
#pragma once

namespace nodelink {

// Makes whoever started the process, and what it was started with, of no account, for the process
// and for its children: an environment of its own, open standard streams, no death by a reader that
// has gone or a file that has grown too large, no memory in a core file or under an ordinary user's
// eyes. The first thing that main does; ends the process when it cannot be done.
void HardenProcess();

}  // namespace nodelink
