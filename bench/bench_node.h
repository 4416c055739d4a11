// A private node for a benchmark run: node names relocated under a temporary
// root, removed again at exit.
#pragma once

namespace nt::bench {

// Relocates the node names once per process; safe to call from every
// benchmark.
void useTemporaryNode();

}  // namespace nt::bench
