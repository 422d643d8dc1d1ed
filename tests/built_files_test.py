#!/usr/bin/env python3
"""What stands in the files that were built: built_files_test.py FILE[=EXPORTS]...

Each file is hardened, names no folder of the machine it was built on, and, where a list of exports
(a linker's version script) is given, exports these names in these versions and no others.
"""
import os
import platform
import re
import subprocess
import sys

BUILD_TREE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
faults = []


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def expect(true, file, what):
    if not true:
        faults.append(f"{os.path.basename(file)}: {what}")


def check_hardening(file):
    head, dynamic, segments = (run("readelf", "-W", option, file) for option in ("-h", "-d", "-l"))
    imported = run("nm", "-D", "--undefined-only", file)
    expect("DYN (" in head, file, "is not position-independent")
    expect("GNU_RELRO" in segments and "BIND_NOW" in dynamic, file, "relocations stay writable")
    expect(re.search(r"GNU_STACK .* RW ", segments), file, "the stack may be executed")
    expect(not re.search(r" RWE ", segments), file, "memory is writable and executable")
    expect("__stack_chk_fail" in imported, file, "no stack protector")
    expect("TEXTREL" not in dynamic, file, "text relocations")
    for path in re.findall(r"R(?:UN)?PATH.*\[(.*)\]", dynamic):
        expect(path.startswith("$ORIGIN"), file, f"looks for libraries in {path}")
    with open(file, "rb") as content:
        expect(BUILD_TREE.encode() not in content.read(), file, "names the build tree")
    return imported


def check_landing_pads(file, functions):
    """Calls through pointers land on endbr64 (Intel CET); the exported functions are such."""
    if platform.machine() != "x86_64":
        return
    code = run("objdump", "-d", "--no-show-raw-insn", file)
    first = dict(re.findall(r"^[0-9a-f]+ <(\w+)>:\n.*?:\t(\S+)", code, re.M))
    bare = [name for name in functions if first.get(name, "endbr64") != "endbr64"]
    expect(not bare, file, f"no landing pad: {' '.join(bare)}")


def check_exports(file, script):
    with open(script) as text:
        nodes = re.findall(r"^(\w+[\w.]*) \{(.*?)^\}", text.read(), re.M | re.S)
        wanted = {(name, node) for node, block in nodes
                  for name in re.findall(r"^    (\w+);", block, re.M)}
    found = {tuple(re.split("@+", line.split()[2])) for line in
             run("nm", "-D", "--defined-only", "--with-symbol-versions", file).splitlines()
             if line.split()[1] != "A"}
    expect(wanted, file, f"nothing is listed in {script}")
    for name, node in sorted(wanted - found):
        expect(False, file, f"{name} in version {node} has vanished")
    for extra in sorted(found - wanted):
        expect(False, file, f"{'@'.join(extra)} is exported and not listed")
    expect(re.search(r"SONAME.*\[lib\w+\.so\.\d+\]", run("readelf", "-d", file)), file, "no SONAME")
    check_landing_pads(file, {name for name, _ in wanted})


fortified = False
for argument in sys.argv[1:]:
    built, _, exports = argument.partition("=")
    fortified |= bool(re.search(r"__(?!stack)\w+_chk", check_hardening(built)))
    if exports:
        check_exports(built, exports)
expect(fortified, "all files", "no call was fortified")
print("\n".join(faults) or f"{len(sys.argv) - 1} files are as they should be")
sys.exit(1 if faults else 0)
