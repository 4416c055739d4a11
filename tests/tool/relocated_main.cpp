// The nodetrace tool on a test node: before anything else, the node's names
// move to the private root and IPC suffix that the test gives in the
// environment, as the test fixture moves its own.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/node_names.h"
#include "logbridge/log_file.h"
#include "tool/commands.h"
#include "tool/node_check.h"

int main(int argc, char** argv) {
  const char* root = std::getenv("NODETRACE_TEST_ROOT");
  const char* suffix = std::getenv("NODETRACE_TEST_IPC_SUFFIX");
  if (root != nullptr && suffix != nullptr) {
    if (!nt::relocateNodeNames(root, suffix)) {
      std::fprintf(stderr, "nodetrace: the test node %s cannot be used\n", root);
      return 70;
    }
    nt::resetLogBridgeForTests();  // its paths follow the names just set
    // The tool's own look at the node follows them too.
    const std::string base(root);
    nodetrace_tool::setNodeObjects({std::string("/shmem_Trace") + suffix, std::string("traceMutex") + suffix,
                                    base + "/var/log/sram", base + "/ffs/run/logs", base + "/tmp/traceDump.tmp"});
  }
  return nodetrace_tool::runTool(argc, argv);
}
