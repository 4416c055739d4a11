// The node's trace objects as the tool sees them, and the check that the
// trace system can start before the first library call of a command.
//
// The library starts itself inside the first trace call and reports a
// failing start-up only as messages on standard error (each failing call
// again), then answers as if the node had no traces: "unknown trace set",
// "none (0x00)", status 0. So every command that needs the node first looks
// at the objects the start-up will open, in the order it opens them, and
// stops at the first one that cannot work with one line that names the
// object and the likely fix (exit status 1). The library is then not called
// at all, so its own messages do not appear; they still can when the node
// changes between the check and the call.
#pragma once

#include <string>

namespace nodetrace_tool {

struct NodeObjects {
  std::string shm;           // shared-memory object, "/shmem_Trace"
  std::string semaphore;     // named semaphore, "traceMutex"
  std::string sram;          // SRAM file, "/var/log/sram"
  std::string logsDir;       // "/ffs/run/logs": configuration and dump files
  std::string traceDumpTmp;  // temporary file of the trace dump
};

// The node's names, with the build's path prefix in front of the file
// paths.
NodeObjects compiledNodeObjects();

// The names in force; the tool's main may move them (a test node).
const NodeObjects& nodeObjects();
void setNodeObjects(const NodeObjects& objects);

// Throws ToolError (status 1) when the trace system of this node cannot
// start for this user.
void requireTraceSystem();

}  // namespace nodetrace_tool
