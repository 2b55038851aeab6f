#include "cli/nodelink.h"
#include "core/memory.h"

int main(int argc, char** argv) {
  nodelink::ReturnLargeBlocks();
  return nodelink::RunCommand(argc, argv);
}
