#!/usr/bin/env python3
"""Reads the include lines of every source and fails on an arrow that the architecture does not allow."""

import pathlib
import re
import subprocess
import sys

# Folder: the folders that it may include, besides itself and libraries. None means anything.
ALLOWED = {
    "platform": set(),
    "common": {"platform"},
    "sasl": {"platform"},
    "Client": {"common", "platform", "sasl"},
    "transferd": {"platform"},
    "tools": {"Client"},
    "server": {"common", "platform", "sasl"},
    "tests": None,
    "bench": None,
    "fuzz": None,
    "examples": {"Client"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def main() -> int:
    root = pathlib.Path(__file__).resolve().parent.parent
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "*.h", "*.cpp"], cwd=root, check=True,
                            capture_output=True, text=True).stdout.split("\n")
    faults, arrows = [], set()
    for name in filter(None, listed):
        source = root / name
        folder = name.split("/")[0]
        if not source.exists():
            continue
        if folder not in ALLOWED:
            faults.append(f"{name}: the folder {folder}/ has no row in the table of arrows")
            continue
        for number, line in enumerate(source.read_text(encoding="utf-8").split("\n"), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            included = match.group(1)
            target = included.split("/")[0]
            if not (root / included).exists():
                faults.append(f"{name}:{number}: \"{included}\" is not a path from the root")
            elif target != folder and ALLOWED[folder] is not None:
                arrows.add((folder, target))
                if target not in ALLOWED[folder]:
                    faults.append(f"{name}:{number}: {folder}/ must not include \"{included}\"")
        if name.endswith(".h") and folder != "tests" and "boost" in source.read_text(encoding="utf-8") and folder != "server":
            faults.append(f"{name}: Boost belongs to the server")
    print("arrows:", ", ".join(f"{a} -> {b}" for a, b in sorted(arrows)))
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
