#include "cli/nodelink.h"

int main(int argc, char** argv) { return nodelink::RunCommand(argc, argv); }
