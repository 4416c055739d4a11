// The nodetrace tool on a test node: the tool's own main() (tool/main.cpp)
// runs unchanged; before it, while the program starts, the node's names move
// to the private root and IPC suffix that the test gives in the environment,
// as the test fixture moves its own. Nothing it touches depends on another
// object's dynamic initialisation: the node names, the log bridge's paths
// and counters are constant-initialised, and the tool's node objects are
// made on first use.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/node_names.h"
#include "logbridge/log_file.h"
#include "tool/node_check.h"

namespace {

__attribute__((constructor)) void relocateTestNode() {
  const char* root = std::getenv("NODETRACE_TEST_ROOT");
  const char* suffix = std::getenv("NODETRACE_TEST_IPC_SUFFIX");
  if (root == nullptr || suffix == nullptr) return;
  if (!nt::relocateNodeNames(root, suffix)) {
    std::fprintf(stderr, "nodetrace: the test node %s cannot be used\n", root);
    std::exit(70);
  }
  nt::resetLogBridgeForTests();  // its paths follow the names just set
  // The tool's own look at the node follows them too.
  const std::string base(root);
  nodetrace_tool::setNodeObjects({std::string("/shmem_Trace") + suffix, std::string("traceMutex") + suffix,
                                  base + "/var/log/sram", base + "/ffs/run/logs", base + "/tmp/traceDump.tmp"});
}

}  // namespace
