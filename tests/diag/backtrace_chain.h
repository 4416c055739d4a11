// A known call chain for the backtrace tests, in a shared library of its own:
//
//   backtrace_chain_enter (C name, exported)
//     -> nt_chain::middle(void (*)(), int) (C++ name, exported, mangled)
//       -> a static function, which has no dynamic symbol
//         -> action()
//
// Every function is a real frame: none is inlined or ends in a tail call.
#pragma once

extern "C" {

__attribute__((visibility("default"))) void backtrace_chain_enter(void (*action)());

// The address of the static function at the bottom of the chain.
__attribute__((visibility("default"))) const void* backtrace_chain_leaf();

}  // extern "C"

namespace nt_chain {

__attribute__((visibility("default"))) void middle(void (*action)(), int depth);

}  // namespace nt_chain
