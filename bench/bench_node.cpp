#include "bench/bench_node.h"

#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/node_names.h"
#include "trace/store/startup.h"

namespace nt::bench {
namespace {

std::string g_root;

void removeTemporaryNode() {
  resetProcessStateForTests();
  shm_unlink(nodeNames().shm);
  sem_unlink(nodeNames().semaphore);
  std::error_code ignored;
  std::filesystem::remove_all(g_root, ignored);
}

}  // namespace

void useTemporaryNode() {
  if (!g_root.empty()) return;
  std::string pattern = "/tmp/nodetrace-bench-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  g_root = pattern;
  for (const char* dir : {"/var/log", "/ffs/run/logs", "/tmp", "/opt/qmb/etc"}) {
    std::filesystem::create_directories(g_root + dir);
  }
  const std::string suffix = "_bench" + std::to_string(getpid());
  if (!relocateNodeNames(g_root.c_str(), suffix.c_str())) std::abort();
  std::atexit(removeTemporaryNode);
}

}  // namespace nt::bench
