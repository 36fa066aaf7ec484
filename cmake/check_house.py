#!/usr/bin/env python3
"""Checks what a compiler does not: sizes, and who includes whom.

Fails when a function is longer than 60 lines (from its first line to its
closing brace), a source file longer than 800, or when a folder includes one
that it must not know. With --lengths prints how long the functions are instead.

Functions are found by the layout that .clang-format gives them: the opening
brace stands alone on its line.
"""
import re
import statistics
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
FUNCTION_MAX = 60
FILE_MAX = 800

# As docs/architecture.md has it: what the files of a folder may include of our own folders, beside its own; None: all of them.
MAY_INCLUDE = {
    "app": {"platform", "proto"},
    "platform": set(),
    "proto": set(),
    "object": {"proto", "platform", "text"},
    "words": {"proto", "platform", "object"},
    "mom": {"platform"},
    "frame": set(),
    "fastpath": {"platform", "frame"},
    "text": {"platform"},
    "shell": {"platform", "text"},
    "sim": {"proto", "platform", "object", "mom", "frame", "fastpath", "text", "shell", "words"},
    "linux": {"proto", "platform", "object", "mom", "fastpath", "text", "shell"},
    "ctl": {"proto", "platform", "object", "mom", "text", "words", "linux"},
    "isolation": set(),
    "bin": None,
    "tests": None,
    "bench": None,
}

NOT_A_FUNCTION = re.compile(r"^\s*(?:(?:inline )?namespace|(?:template .*)?(?:class|struct|enum|union)|extern \"C\")\b")


def tracked():
    listing = subprocess.run(["git", "-c", "safe.directory=*", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True)
    return [Path(name) for name in listing.stdout.decode().split("\0")
            if name.endswith((".cpp", ".h")) and (ROOT / name).is_file()]


def signature_start(lines, brace):
    """The first line of the declaration whose body opens at line `brace`."""
    start = brace
    while start > 0:
        above = lines[start - 1].strip()
        if not above or above.startswith("#") or above.endswith((";", "{", "}", "*/", "public:", "private:",
                                                                 "protected:")) or above.startswith("//"):
            break
        start -= 1
    return start


def functions(lines):
    """Yields (first line, text of it, length) of every function."""
    for brace, line in enumerate(lines):
        if line.strip() != "{":
            continue
        start = signature_start(lines, brace)
        if start == brace or NOT_A_FUNCTION.match(lines[start]):
            continue
        indent = line[:line.index("{")]
        for end in range(brace + 1, len(lines)):
            if lines[end].startswith(indent + "}") :
                yield start + 1, lines[start].strip(), end - start + 1
                break


def included_folder(line):
    match = re.match(r'\s*#\s*include\s+"(?:\.\./)*([a-z_]+)/', line)
    return match.group(1) if match else None


def check_includes(path, lines):
    folder = path.parts[0]
    if folder not in MAY_INCLUDE:
        yield f"{path}: {folder}/ has no line in MAY_INCLUDE"
        return
    allowed = MAY_INCLUDE[folder]
    for number, line in enumerate(lines, 1):
        target = included_folder(line)
        if target is not None and allowed is not None and target not in allowed | {folder}:
            yield f"{path}:{number}: {folder}/ must not include {target}/"


def check(path, text):
    lines = text.splitlines()
    if len(lines) > FILE_MAX:
        yield f"{path}: {len(lines)} lines, over {FILE_MAX}"
    for number, name, length in functions(lines):
        if length > FUNCTION_MAX:
            yield f"{path}:{number}: {length} lines, over {FUNCTION_MAX}: {name}"
    yield from check_includes(path, lines)


def print_lengths(sources):
    by_folder = {}
    for path, text in sources:
        found = functions(text.splitlines())
        by_folder.setdefault(path.parts[0], []).extend(length for _, _, length in found)
    by_folder["all"] = [length for lengths in by_folder.values() for length in lengths]
    print(f"{'folder':10} {'functions':>9} {'median':>6} {'longest':>7}")
    for folder, lengths in by_folder.items():
        if lengths:
            print(f"{folder:10} {len(lengths):9} {statistics.median(lengths):6g} {max(lengths):7}")


def main():
    sources = [(path, (ROOT / path).read_text(encoding="utf-8")) for path in tracked()]
    if "--lengths" in sys.argv[1:]:
        print_lengths(sources)
        return 0
    faults = [fault for path, text in sources for fault in check(path, text)]
    print("\n".join(faults) if faults else f"{len(sources)} files: nothing against the house")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
