#!/usr/bin/env python3
"""Fails when the top-level folders of the source tree include each other in
a cycle.

Every '#include "..."' line of every source and header is resolved as the
compiler would find it (beside the including file, then on the include paths
the targets use) and counts as an arrow from the including file's folder to
the included file's folder.

    folder_cycles.py <source root> [trace]

With "trace" the arrows between the subfolders of trace/ are checked instead
and their cycles only printed (docs/layout.md says which remain and why); the
exit status is then always 0.
"""
import os
import re
import sys

FOLDERS = "common trace logbridge diag platform include tool tests bench fuzz examples".split()
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]*)"')
SOURCE_ENDINGS = (".h", ".cpp", ".c")


def folder_of(root, path, mode):
    """The folder an included file belongs to, or None when it is not ours
    (a system header, or a file generated into the build tree)."""
    rel = os.path.relpath(path, root)
    if rel.startswith(".."):
        return None
    parts = rel.split(os.sep)
    if mode == "trace":
        return "trace/" + parts[1] if parts[0] == "trace" and len(parts) >= 3 else None
    return parts[0]


def arrows_of(root, mode):
    search = [root, os.path.join(root, "include"), os.path.join(root, "platform", "include"),
              os.path.join(root, "tool")]
    arrows = set()
    for top in FOLDERS:
        for directory, _, files in os.walk(os.path.join(root, top)):
            for name in sorted(files):
                if not name.endswith(SOURCE_ENDINGS):
                    continue
                path = os.path.join(directory, name)
                source = folder_of(root, path, mode)
                if source is None:
                    continue
                with open(path, encoding="utf-8", errors="replace") as text:
                    for line in text:
                        match = INCLUDE.match(line)
                        if not match:
                            continue
                        for base in [directory] + search:
                            candidate = os.path.join(base, match.group(1))
                            if os.path.isfile(candidate):
                                target = folder_of(root, os.path.realpath(candidate), mode)
                                if target is not None and target != source:
                                    arrows.add((source, target))
                                break
    return arrows


def cycles_of(arrows):
    """One cycle through each folder that lies on one, as lists of folders."""
    graph = {}
    for source, target in arrows:
        graph.setdefault(source, []).append(target)
    found = []
    state = {}

    def visit(node, path):
        state[node] = "open"
        path.append(node)
        for target in sorted(graph.get(node, [])):
            if state.get(target) == "open":
                found.append(path[path.index(target):] + [target])
            elif target not in state:
                visit(target, path)
        path.pop()
        state[node] = "done"

    for node in sorted(graph):
        if node not in state:
            visit(node, [])
    return found


def main():
    root = os.path.realpath(sys.argv[1])
    mode = sys.argv[2] if len(sys.argv) > 2 else "top"
    arrows = arrows_of(root, mode)
    print("Arrows between folders (including -> included):")
    for source, target in sorted(arrows):
        print(f"{source} -> {target}")
    cycles = cycles_of(arrows)
    if mode == "trace":
        if cycles:
            print("Cycles remain between the subfolders of trace/:")
            for cycle in cycles:
                print("  " + " -> ".join(cycle))
        return 0
    if cycles:
        for cycle in cycles:
            print("cycle: " + " -> ".join(cycle), file=sys.stderr)
        print("The folders above include each other in a cycle.", file=sys.stderr)
        return 1
    print("No cycle between top-level folders.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
