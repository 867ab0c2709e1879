#!/usr/bin/python3
"""Checks that every "// Kept:" comment in src/, tools/ and include/ names a
test that exists.

A Kept comment is the block of // lines that starts with "Kept:"; it must
name its pinning tests as "(test Suite.Name)", "(tests A.B, C.D)" or
"(dialogue NAME)". A test name exists when tests/ defines TEST, TEST_F or
TEST_P with that suite and name; a dialogue when tests/dialogues/NAME.dlg
exists. Prints every finding; exit status 1 when there is one.
"""
import pathlib
import re
import subprocess
import sys

root = pathlib.Path(__file__).resolve().parent.parent
files = subprocess.run(["git", "ls-files", "src", "tools", "include"], cwd=root,
                       capture_output=True, text=True, check=True).stdout.split()

defined = set()
for test_file in subprocess.run(["git", "ls-files", "tests"], cwd=root, capture_output=True,
                                text=True, check=True).stdout.split():
    path = root / test_file
    if path.suffix in (".cpp", ".cc", ".h") and path.is_file():
        text = path.read_text(errors="replace")
        for suite, name in re.findall(r"\bTEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", text):
            defined.add(f"{suite}.{name}")
    elif path.suffix == ".dlg":
        rel = path.relative_to(root / "tests" / "dialogues") if "dialogues" in path.parts else None
        if rel is not None:
            defined.add(rel.stem)
            if len(rel.parts) > 1:
                defined.add(f"{rel.parts[-2]}.{rel.stem}")

problems = 0
kept_count = 0
for name in files:
    path = root / name
    if path.suffix not in (".c", ".cpp", ".h") or not path.is_file():
        continue
    lines = path.read_text(errors="replace").splitlines()
    for i, line in enumerate(lines):
        if not re.search(r"//\s*Kept:", line):
            continue
        kept_count += 1
        block = [line.split("//", 1)[1]]
        for follow in lines[i + 1:]:
            stripped = follow.strip()
            if not stripped.startswith("//") or re.search(r"//\s*Kept:", stripped):
                break
            block.append(stripped[2:])
        text = " ".join(part.strip() for part in block)
        named = re.findall(r"\(tests? ([^)]*)\)", text)
        dialogues = re.findall(r"\(dialogue ([^)\s]*)\)", text)
        for dialogue in dialogues:
            if not (root / "tests" / "dialogues" / f"{dialogue}.dlg").is_file():
                print(f"{name}:{i + 1}: Kept comment names a dialogue that does not exist: {dialogue}")
                problems += 1
        if dialogues and not named:
            continue
        where = f"{name}:{i + 1}"
        if not named:
            print(f"{where}: Kept comment names no pinning test: {text}")
            problems += 1
            continue
        for group in named:
            for test in (t.strip() for t in group.split(",")):
                if test not in defined:
                    print(f"{where}: Kept comment names a test that does not exist: {test}")
                    problems += 1

print(f"{kept_count} Kept comments checked, {problems} problems")
sys.exit(1 if problems else 0)
