#!/bin/sh
# The main job of the library end to end, on the simulated node of a demo
# build (configured with NODETRACE_PATH_PREFIX=<build dir>/node; such a build
# has IPC names of its own too, so the demo and its tool leave every other
# build's node alone):
#   1. the demo program: two applications trace at the same time, a third
#      process reads their entries back (and the demo shows the rest of the
#      library along the way);
#   2. nodetrace show prints the merged stream of every set;
#   3. nodetrace dump writes the whole store into a dump file, and
#      nodetrace decode reads it back (anywhere, no node needed);
#   4. nodetrace decode --format chrome turns that file into Trace Event JSON,
#      which the Perfetto UI (https://ui.perfetto.dev) and chrome://tracing open;
#   5. nodetrace decode --format ctf turns it into a CTF trace directory, and
#      babeltrace2 (when installed) prints its first events.
# Usage: examples/demo/demo.sh BUILD_DIR
set -eu
build=${1:?usage: demo.sh BUILD_DIR}
build=$(cd "$build" && pwd)
tool="$build/tool/nodetrace"

run() {
  printf '\n$ %s\n' "$*"
  "$@"
}

run "$build/examples/demo/nodetrace_demo" --fresh
run "$tool" sets
run "$tool" show
run "$tool" dump "$build/traces.bin" --with-sram
run "$tool" decode "$build/traces.bin"
run "$tool" decode --format chrome --output "$build/traces.json" "$build/traces.bin"
printf '\n%s: open it in the Perfetto UI (https://ui.perfetto.dev) or chrome://tracing\n' \
  "$build/traces.json"
run "$tool" decode --format ctf --output "$build/traces-ctf" "$build/traces.bin"
if command -v babeltrace2 >/dev/null 2>&1; then
  printf '\n$ babeltrace2 --clock-gmt %s | head -n 10\n' "$build/traces-ctf"
  babeltrace2 --clock-gmt "$build/traces-ctf" | head -n 10
else
  printf '\n%s: read it with babeltrace2 (Debian package babeltrace2) or a CTF viewer\n' \
    "$build/traces-ctf"
fi
