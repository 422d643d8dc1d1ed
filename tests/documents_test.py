#!/usr/bin/env python3
"""Holds a page to what is built: documents_test.py PAGE

The files, links, functions and lines of CMake that it names are there, and what it has in these
blocks is typed, in one bash on a terminal, in a folder with the project's examples/, include/ and
build/release/ and nothing else:

  ```console   lines after "$ " are commands ("> " goes on with the last one), the others what they
               print; "..." stands for anything within a line, alone on a line for any lines
  ```c         the inside of a main function; it has to compile, run and return 0

The PIN is typed wherever it is asked for, and "yes" to other questions. A command that is meant to
fail ends in "# fails"; after one that ends in "&", the next waits until $PORT is served. What can't
be typed here stands in ELSEWHERE, each with what does so.

docs/interface.md also has all that the header declares and the library exports, and the worked
example of docs/device-file.md is a device. softdevice is found on PATH.
"""
import hashlib
import os
import re
import subprocess
import sys
import tempfile

from support.terminal import await_echo, converse, free_port

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PIN = "correct-horse"
# Commands that are only looked up: what they name has to be there.
ELSEWHERE = {
    r"scripts/\S+.*": "is CI's own, or takes minutes",
    r"cmake --(preset|build --preset) release.*": "has built what is typed with",
    r"ctest --preset release.*": "is running this",
    r"build/release/bin/token_bench .*": "takes minutes",
    r"sudo .*": "needs root; tests/packages_test.py installs elsewhere",
    r"cpack .*": "is what tests/packages_test.py does",
}
C_PROGRAM = """cat >body.c <<'END'
#include <vakro_device.h>
#include <dlfcn.h>
#include <stddef.h>
int main(void) {{
{}
}}
END
cc -Werror -Iinclude body.c -o body -Lbuild/release/lib -lvakro_device &&
LD_LIBRARY_PATH=build/release/lib ./body"""
FOLDER = f"""cp -r '{ROOT}/examples' .; ln -s '{ROOT}/include' .; mkdir build tmp
ln -s "$(dirname "$(dirname "$(command -v softdevice)")")" build/release
"""
SERVED = "until (: </dev/tcp/localhost/$PORT) 2>&-; do sleep .1; done"


def read(name):
    with open(os.path.join(ROOT, name), encoding="utf-8") as file:
        return file.read()


def blocks(text):
    """The fenced blocks: (language, first line's number, text)."""
    for match in re.finditer(r"^```([\w-]*)\n(.*?)^```$", text, re.M | re.S):
        yield match[1], text.count("\n", 0, match.start()) + 2, match[2]


# --- What a page names --------------------------------------------------------------------------


def headings(text):
    """What a link names headings by."""
    for heading in re.findall(r"^#+ (.*)", text, re.M):
        yield re.sub(r"[^\w -]", "", heading).lower().replace(" ", "-")


def check_names(page, text):
    code = subprocess.run(["git", "-C", ROOT, "grep", "-hoE", r"\w{4,}", "--", "*.h", "*.cpp",
                           "*.c", "*.cmake"], capture_output=True, text=True).stdout
    words = set(code.split())
    plain = re.sub(r"^```.*?^```$", "", text, flags=re.M | re.S)
    for link, heading in re.findall(r"\]\(([^)#:]*)#?([^):]*)\)", plain):
        target = os.path.join(os.path.dirname(page), link) if link else page
        if not os.path.exists(os.path.join(ROOT, target)) or (
                heading and heading not in headings(read(target))):
            yield f"the link to {link}#{heading} leads nowhere"
    for name in re.findall(r"`([^`\s]+)[^`\n]*`", plain):
        path = re.fullmatch(r"(?!build/|/|\.\./)[\w.-]+/[\w./-]*", name)
        function = re.fullmatch(r"[A-Z][a-z]+[A-Z]\w+|g_\w+|Device[A-Z]\w+", name)
        placeholder = re.search(r"[A-Z]{4,}/", name)
        if path and not placeholder and not os.path.exists(os.path.join(ROOT, name)):
            yield f"there is no {name}"
        if function and words and name not in words:
            yield f"nothing is called {name}"
    for kind, _, cmake in blocks(text):
        for line in cmake.splitlines() if kind == "cmake" else []:
            if line not in read("examples/CMakeLists.txt"):
                yield f"the examples have no {line}"


# --- What a page types --------------------------------------------------------------------------


def commands(text):
    """(line number, command, what it prints or None for anything)."""
    for kind, number, block in blocks(text):
        if kind == "c":
            yield number, C_PROGRAM.format(block), None
        elif kind == "console":
            for step in re.finditer(r"^\$ (.*\n(?:> .*\n)*)((?:(?!\$ ).*\n)*)", block, re.M):
                at = number + block.count("\n", 0, step.start())
                yield at, re.sub(r"^> ", "", step[1], flags=re.M).strip(), step[2]


def looked_up(command):
    file = command.split()[0]
    known = any(re.fullmatch(pattern, command) for pattern in ELSEWHERE)
    assert not known or "scripts/" not in file or os.access(os.path.join(ROOT, file), os.X_OK), file
    return known


def fits(expected, printed):
    lines = [r"(?:.*\n)*?" if line == "..." else
             ".*?".join(map(re.escape, line.rstrip().split("..."))) + r"\s*\n"
             for line in expected.splitlines()]
    return re.fullmatch("".join(lines), printed.strip("\n") + "\n" if printed.strip() else "")


def type_all(todo):
    """All that the terminal shows, but for questions and answers; "=== LINE STATUS" after each
    command, up to the first that does not end as it should."""
    prompts = []

    def answer(said, terminal):
        line = said.rsplit("\n", 1)[-1]
        if not re.search(r"(?i)(pin|pass|yes|sure).*[]:?] *$", line):
            return b""
        prompts.append(line)
        await_echo(terminal, "yes" in line)
        return (b"yes" if "yes" in line else PIN.encode()) + b"\n"

    script = [FOLDER]
    for number, command, _ in todo:
        well = "!=" if command.endswith("# fails") else "="
        script += [f"{{ {command}\n}}; s=$?",
                   f"printf '\\n=== {number} %s\\n' $s; [ $s {well} 0 ] || exit",
                   SERVED if command.endswith("&") else ""]
    with tempfile.TemporaryDirectory() as home:
        said, _ = converse(["bash", "-c", "\n".join(script)], answer, home, {
            **os.environ, "LC_ALL": "C.UTF-8", "HOME": home, "VAKRO_FOLDER": home + "/keys",
            "NO_COLOR": "1", "TMPDIR": home + "/tmp",
            "XDG_RUNTIME_DIR": home + "/tmp", "PORT": free_port()})
    for prompt in prompts:
        said = re.sub("^" + re.escape(prompt) + "(yes)?\r*\n", "", said, 1, re.M)
    said = re.sub(r".*\r\033\[K", "", said)  # what was shown while it took its time
    return said.replace("\r", "")


def check_commands(text):
    todo = [c for c in commands(text) if not looked_up(c[1])]
    rest = type_all(todo)
    for number, command, expected in todo:
        printed, _, rest = rest.partition(f"\n=== {number} ")
        status, _, rest = rest.partition("\n")
        if (status == "0") == command.endswith("# fails") or not status:
            yield f"{number}: $ {command}\n{printed}\nended with {status or 'the shell'}"
            break
        if expected is not None and not fits(expected, printed):
            yield f"{number}: $ {command}\nprinted:\n{printed}"
    print(f"{len(todo)} commands typed")


# --- What two pages are about -------------------------------------------------------------------


def check_interface(text):
    page, header = (" ".join(re.sub("//.*", "", c).split())
                    for c in (text, read("include/vakro_device.h")))
    prototypes = re.findall(r"(?:\w+[ *]+)+(Device\w+)(\([^)]*\);)", header)
    assert len(prototypes) > 40, "the header was not understood"
    for name, arguments in prototypes:
        if name + arguments not in page:
            yield f"there is no {name}{arguments}"
    for record in re.findall(r"typedef struct \w+ {.*?}", header):
        if record not in page:
            yield f"there is no {record}"
    for name, number in re.findall(r"(\w+) = (-?\d+)", header):
        if not re.search(rf"`{name}`[^\n]*(?<![\d-]){number}\b", text):
            yield f"{name} is not said to be {number}"
    exported = re.findall(r"^    (Device\w+);", read("device/exports.map"), re.M)
    for name in set(exported) ^ {name for name, _ in prototypes}:
        yield f"declared or exported, not both: {name}"


def check_device_file(text):
    texts = [text for _, _, text in blocks(text.partition("## A worked example")[2])]
    header = "".join(re.findall(r"^(?:fileTag|L) +([0-9a-f]{8})", texts[0], re.M))
    digest = "".join(re.findall(r"[0-9a-f]{64}", texts[2]))
    image = bytes.fromhex(header) + texts[1].replace("\n", "").encode() + bytes.fromhex(digest)
    for at, row in re.findall(r"^ *(\d+)  ((?:[0-9a-f]{2} )+)", texts[3], re.M):
        if not image[int(at):].startswith(bytes.fromhex(row)):
            yield f"the dump is wrong at {at}"
    # The private key: every line of the derivation from the ones before it.
    parts, name = {}, None
    for line in texts[4].splitlines():
        label = line[:12].strip()
        name = label if label and label != "encoding" else name
        hexadecimal = re.findall(r"\b(?:[0-9a-f]{2})+\b", line[12:].split('"')[0])
        parts[name] = parts.get(name, "") + "".join(hexadecimal)
    material = hashlib.pbkdf2_hmac("sha512", b"1234", bytes.fromhex(parts["salt"]), 2000, 40).hex()
    for said, true in ((parts["key"], material[:64]), (parts["nonce"][:16], material[64:]),
                       (parts["associated"], header[:8] + b"password".hex())):
        if said != true:
            yield f"{said} should be {true}"
    for part in parts["keypair"].split("00000020")[1:3] + [parts["ciphertext"] + parts["tag"]]:
        if part not in texts[1].replace("\n", "").replace('",\n"', ""):
            yield f"the text has no {part}"
    # It is a device, and the PIN opens its key.
    with tempfile.TemporaryDirectory() as folder:
        os.makedirs(f"{folder}/keys", 0o700)
        for name, content in (("keys/example", image), ("pin", b"1234\n")):
            with open(os.open(f"{folder}/{name}", os.O_CREAT | os.O_WRONLY, 0o600), "wb") as file:
                file.write(content)
        run = subprocess.run(["softdevice", "check", "--folder", f"{folder}/keys", "--with-pin",
                              "--pin-file", f"{folder}/pin"], capture_output=True, text=True)
        if run.returncode != 0:
            yield run.stdout + run.stderr


def check(page):
    text = read(page)
    yield from check_names(page, text)
    yield from check_commands(text)
    if page == "docs/interface.md":
        yield from check_interface(text)
    if page == "docs/device-file.md":
        yield from check_device_file(text)


faults = [f"{sys.argv[1]}: {fault}" for fault in check(sys.argv[1])]
print("\n".join(faults) or "as it is written")
sys.exit(1 if faults else 0)
