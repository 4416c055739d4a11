#!/bin/sh
# Fails when the top-level folders of the source tree include each other in a
# cycle. Every '#include "..."' line of every source and header is resolved
# as the compiler would find it (beside the including file, then on the
# include paths the targets use) and counts as an arrow from the including
# file's folder to the included file's folder; tsort refuses a cycle.
#
#   folder_cycles.sh <source root> [trace]
#
# With "trace" the arrows between the subfolders of trace/ are checked
# instead and their cycles only printed (docs/layout.md says which remain
# and why); the exit status is then always 0.
set -eu
root=$1
mode=${2:-top}

folders="common trace logbridge diag platform include tool tests bench fuzz examples"

# The folder an included file belongs to, or nothing when it is not ours
# (a system header, or a file generated into the build tree).
folder_of() {
  path=$1
  rel=${path#"$root"/}
  if [ "$mode" = trace ]; then
    case $rel in
      trace/*/*) rel=${rel#trace/}; echo "trace/${rel%%/*}" ;;
    esac
  else
    echo "${rel%%/*}"
  fi
}

arrows=$(mktemp)
trap 'rm -f "$arrows"' EXIT

for top in $folders; do
  [ -d "$root/$top" ] || continue
  find "$root/$top" -type f \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) | sort |
  while IFS= read -r file; do
    from=$(folder_of "$file")
    [ -n "$from" ] || continue
    sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file" |
    while IFS= read -r name; do
      for base in "$(dirname "$file")" "$root" "$root/include" "$root/platform/include" \
                  "$root/tool"; do
        if [ -f "$base/$name" ]; then
          to=$(folder_of "$(cd "$(dirname "$base/$name")" && pwd -P)/$(basename "$name")")
          [ -n "$to" ] && [ "$to" != "$from" ] && echo "$from $to" >>"$arrows"
          break
        fi
      done
    done
  done
done

sort -u "$arrows" -o "$arrows"
echo "Arrows between folders (including -> included):"
sed 's/ / -> /' "$arrows"
if [ "$mode" = trace ]; then
  tsort "$arrows" >/dev/null 2>&1 || { echo "Cycles remain between the subfolders of trace/:"; tsort "$arrows" 2>&1 >/dev/null | sed -n 's/^tsort: //p'; }
  exit 0
fi
if ! tsort "$arrows" >/dev/null; then
  echo "The folders above include each other in a cycle (tsort names one)." >&2
  exit 1
fi
echo "No cycle between top-level folders."
