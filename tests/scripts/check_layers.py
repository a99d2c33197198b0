#!/usr/bin/python3
"""Checks the include lines of the product against its floors.

Each directory is one floor and may include only the floors listed for it below. Besides, no
two source pairs (X.h with X.cpp) may depend on each other, directly or around a circle. Run
from the repository root; prints every climb and circle and exits 1 when there is one.
"""
import os
import re
import sys

LIBRARY = ["runtime", "protocol", "core", "hexfile", "clients", "dll", "umbrella"]

# What each floor may include besides itself. The library's floors build on one another in
# the order of LIBRARY; the simulator stands on the library's lower floors only, so that it
# never shares code with the clients it answers.
ALLOWED = {
    "runtime": set(),
    "protocol": {"runtime"},
    "core": {"runtime", "protocol"},
    "hexfile": {"runtime", "protocol", "core"},
    "clients": {"runtime", "protocol", "core", "hexfile"},
    "dll": {"runtime", "protocol", "core", "hexfile", "clients"},
    "umbrella": {"runtime", "protocol", "core", "hexfile", "clients", "dll"},
    "sim": {"runtime", "protocol", "core", "hexfile"},
    "tools": set(LIBRARY) | {"sim"},
    "python": set(LIBRARY),
}

# Single headers a floor may not include although their floor is allowed: the simulator takes
# telegrams, payload readers and result codes from the core, never the clients' engine.
FORBIDDEN = {"sim": {"tarvik/core/TarvikClient.h"}}

# Headers the build generates; they hold macros only and sit on the ground floor.
GENERATED = {"tarvik/TarvikVersion.h": "runtime"}

SOURCE_DIRS = ["tarvik", "sim", "tools", "python/src"]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
CMAKE_SOURCE = re.compile(r"\$\{(?:PROJECT|CMAKE)_SOURCE_DIR\}/([A-Za-z0-9_/.-]+)")


def floor_of(path):
    parts = path.split("/")
    if parts[0] == "tarvik":
        if len(parts) == 2:
            return "umbrella" if parts[1] == "Tarvik.h" else GENERATED.get(path)
        return parts[1] if parts[1] in ALLOWED else None
    if parts[0] == "python" and len(parts) > 1 and parts[1] == "src":
        return "python"
    return parts[0] if parts[0] in ALLOWED else None


def resolve(including, name):
    if name in GENERATED:
        return name
    for candidate in (os.path.normpath(os.path.join(os.path.dirname(including), name)), name):
        if os.path.isfile(candidate):
            return candidate
    return None


def sources():
    for top in SOURCE_DIRS:
        for root, _, files in os.walk(top):
            for name in sorted(files):
                if name.endswith((".h", ".cpp", ".c")):
                    yield os.path.join(root, name)


def pair_of(path):
    return os.path.splitext(path)[0]


def circles(edges):
    """Strongly connected components with more than one pair (Tarjan, iterative)."""
    index, low, stack, on_stack, found = {}, {}, [], set(), []
    counter = [0]
    for start in sorted(edges):
        if start in index:
            continue
        work = [(start, iter(sorted(edges.get(start, ()))))]
        index[start] = low[start] = counter[0]
        counter[0] += 1
        stack.append(start)
        on_stack.add(start)
        while work:
            node, children = work[-1]
            advanced = False
            for child in children:
                if child not in index:
                    index[child] = low[child] = counter[0]
                    counter[0] += 1
                    stack.append(child)
                    on_stack.add(child)
                    work.append((child, iter(sorted(edges.get(child, ())))))
                    advanced = True
                    break
                if child in on_stack:
                    low[node] = min(low[node], index[child])
            if advanced:
                continue
            work.pop()
            if work:
                low[work[-1][0]] = min(low[work[-1][0]], low[node])
            if low[node] == index[node]:
                group = []
                while True:
                    member = stack.pop()
                    on_stack.discard(member)
                    group.append(member)
                    if member == node:
                        break
                if len(group) > 1:
                    found.append(sorted(group))
    return found


def cmake_climbs():
    """A component's CMakeLists may compile only sources it may include."""
    problems = []
    for path, floor in (("sim/CMakeLists.txt", "sim"), ("python/CMakeLists.txt", "python"),
                        ("tarvik/CMakeLists.txt", "umbrella")):
        if not os.path.isfile(path):
            continue
        with open(path, encoding="utf-8") as handle:
            for match in CMAKE_SOURCE.finditer(handle.read()):
                target = floor_of(match.group(1))
                if target is not None and target != floor and target not in ALLOWED[floor]:
                    problems.append(f"{path}: builds {match.group(1)} from the {target} floor")
    return problems


def main():
    problems, edges, count, files = [], {}, 0, 0
    for path in sources():
        files += 1
        floor = floor_of(path)
        with open(path, encoding="utf-8", errors="replace") as handle:
            text = handle.read()
        for name in INCLUDE.findall(text):
            target = resolve(path, name)
            if target is None:
                continue
            count += 1
            target_floor = floor_of(target)
            if target_floor is None:
                continue
            if target_floor != floor and target_floor not in ALLOWED[floor]:
                problems.append(f"{path}: includes {name} ({floor} climbs to {target_floor})")
            if target in FORBIDDEN.get(floor, ()):
                problems.append(f"{path}: includes {name} (kept from the {floor} floor)")
            if pair_of(target) != pair_of(path):
                edges.setdefault(pair_of(path), set()).add(pair_of(target))
    problems += cmake_climbs()
    for group in circles(edges):
        problems.append("circle: " + " <-> ".join(group))
    for line in problems:
        print(line)
    print(f"layers: {files} files, {count} includes, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
