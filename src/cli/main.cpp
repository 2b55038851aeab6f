#include "cli/nodelink.h"
#include "core/memory.h"
#include "core/process.h"

int main(int argc, char** argv) {
  nodelink::HardenProcess();
  nodelink::ReturnLargeBlocks();
  return nodelink::RunCommand(argc, argv);
}
