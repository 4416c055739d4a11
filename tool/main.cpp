// The nodetrace tool on the node: the shipped library, the node's own names.

#include "commands.h"

int main(int argc, char** argv) { return nodetrace_tool::runTool(argc, argv); }
