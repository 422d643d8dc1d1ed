#!/usr/bin/env python3
"""Holds the documents to what is built:

  documents_test.py interface          docs/interface.md has the header's prototypes and numbers,
                                       and what is declared is exported
  documents_test.py device-file        the worked example of docs/device-file.md is a device
  documents_test.py names PAGE...      the files, links, functions and lines of CMake that pages
                                       name are there
  documents_test.py typed PAGE         every command of a page is typed, and prints what it says

softdevice is found on PATH. How a page is typed:

  ```console   lines after "$ " are commands ("> " goes on with the last one), the others what they
               print; "..." stands for anything within a line, alone on a line for any lines
  ```sh        a script; it has to succeed
  ```c         the inside of a main function, which has to return 0
  other        is not typed

All blocks of a page run in one shell, in a folder with the project's examples/, include/ and
build/release/ and nothing else. The PIN is typed wherever it is asked for. A command that is
meant to fail ends in "# fails". What can't be typed here stands in ELSEWHERE, each with what does
so.
"""
import hashlib
import os
import re
import subprocess
import sys
import tempfile

from support.terminal import converse

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PIN = "correct-horse"
# Lines that are only looked up: what they name has to be there.
ELSEWHERE = {
    r"scripts/\S+.*": "is CI's own, or takes minutes",
    r"cmake --(preset|build --preset) release.*": "has built what is typed with",
    r"ctest --preset release.*": "is running this",
    r"sudo .*": "needs root; tests/packages_test.py installs elsewhere",
    r"cpack .*": "is what tests/packages_test.py does",
}
C_PROGRAM = """cat >body.c <<'END'
#include <vakro_device.h>
#include <dlfcn.h>
#include <stddef.h>
int main(void) {{
{}}}
END
cc -Werror body.c -o body -Iinclude -Lbuild/release/lib -lvakro_device
LD_LIBRARY_PATH=build/release/lib ./body"""


def read(name):
    with open(os.path.join(ROOT, name), encoding="utf-8") as file:
        return file.read()


def blocks(text):
    """The fenced blocks: (language, first line's number, text)."""
    for match in re.finditer(r"^```([\w-]*)\n(.*?)^```$", text, re.M | re.S):
        yield match[1], text.count("\n", 0, match.start()) + 2, match[2]


# --- interface.md -----------------------------------------------------------------------------


def declarations(c):
    """Prototypes, enumerators with their numbers, and records of C text, in one form."""
    c = re.sub(r"//.*", "", c)
    flat = re.sub(r"\s+", " ", c)
    prototypes = set(re.findall(r"((?:[\w]+[ *]+)+Device\w+\([^)]*\));", flat))
    records = {re.sub(r" ?; ?", ";", body).strip()
               for body in re.findall(r"typedef struct \w+ {(.*?)}", flat)}
    return {p.strip() for p in prototypes}, dict(re.findall(r"(\w+) = (-?\d+)", flat)), records


def test_interface():
    page = read("docs/interface.md")
    prototypes, numbers, records = declarations(read("include/vakro_device.h"))
    said = declarations("".join(text for kind, _, text in blocks(page) if kind == "c"))
    faults = [f"only in the page or the header: {x}"
              for x in (prototypes ^ said[0]) | (records ^ said[2])]
    faults += [f"{name} is not said to be {number}" for name, number in numbers.items()
               if not re.search(rf"`{name}`[^\n]*(?<![\d-]){number}\b", page)]
    exported = set(re.findall(r"^    (Device\w+);", read("device/exports.map"), re.M))
    declared = {re.search(r"(Device\w+)\(", p)[1] for p in prototypes}
    faults += [f"declared or exported, not both: {name}" for name in declared ^ exported]
    assert len(prototypes) > 40, "the header was not understood"
    return faults


# --- device-file.md ---------------------------------------------------------------------------


def test_device_file():
    example = read("docs/device-file.md").partition("## A worked example")[2]
    texts = [text for _, _, text in blocks(example)]
    words = dict(re.findall(r"^(fileTag|L) +([0-9a-f]{8})", texts[0], re.M))
    json_text = texts[1].replace("\n", "").encode()
    digest = bytes.fromhex("".join(re.findall(r"[0-9a-f]{64}", texts[2])))
    image = bytes.fromhex(words["fileTag"] + words["L"]) + json_text + digest
    faults = []

    def expect(true, what):
        if not true:
            faults.append(what)

    expect(int(words["L"], 16) == len(json_text), "L is not the length of the text")
    expect(hashlib.sha512(json_text).digest() == digest, "the digest is not that of the text")
    for at, row in re.findall(r"^ *(\d+)  ((?:[0-9a-f]{2} )+)", texts[3], re.M):
        row = bytes.fromhex(row)
        expect(image[int(at):int(at) + len(row)] == row, f"the dump is wrong at {at}")
    # The private key: every line of the derivation from the ones before it.
    parts, name = {}, None
    for line in texts[4].splitlines():
        label, value = line[:12].strip(), line[12:]
        name = label if label and label != "encoding" else name
        value = value.split('"')[0]
        parts[name] = parts.get(name, "") + "".join(re.findall(r"\b(?:[0-9a-f]{2})+\b", value))
    material = hashlib.pbkdf2_hmac("sha512", b"1234", bytes.fromhex(parts["salt"]), 2000, 40)
    expect(material[:32].hex() == parts["key"], "the key is not derived so")
    expect(material[32:].hex() + parts["nonce"][16:] == parts["nonce"], "the nonce is not made so")
    expect(words["fileTag"] + b"password".hex() == parts["associated"], "the associated data")
    expect(parts["ciphertext"] + parts["tag"] in json_text.decode(), "the text holds another key")
    # The module agrees: it loads the device, and the PIN opens the key of the encoding.
    with tempfile.TemporaryDirectory() as folder:
        os.mkdir(f"{folder}/keys", 0o700)
        for name, content in (("keys/example", image), ("pin", b"1234\n"), ("file", b"text")):
            with open(f"{folder}/{name}", "wb") as file:
                file.write(content)
        os.chmod(f"{folder}/keys/example", 0o600)
        where = ["--folder", f"{folder}/keys", "--keypair", "sign"]
        run = subprocess.run(["softdevice", "sign", f"{folder}/file", *where, "--pin-file",
                              f"{folder}/pin", "--output", f"{folder}/sig"],
                             capture_output=True, text=True)
        expect(run.returncode == 0, f"the PIN does not open it: {run.stderr}")
        run = subprocess.run(["softdevice", "public-key", *where], capture_output=True, text=True)
        der = subprocess.run(["openssl", "pkey", "-pubin", "-outform", "DER"],
                             input=run.stdout.encode(), capture_output=True).stdout
        x, y = (parts["keypair"].split("00000020")[i][:64] for i in (1, 2))
        expect(der.hex().endswith("04" + x + y), "the public key is another")
    return faults


# --- Names ------------------------------------------------------------------------------------


def test_names(*pages):
    code = subprocess.run(["git", "-C", ROOT, "grep", "-hoE", r"\w{4,}", "--", "*.h", "*.cpp",
                           "*.c", "*.cmake"], capture_output=True, text=True).stdout
    words = set(code.split())
    faults = []
    for page in pages:
        text = read(page)
        plain = re.sub(r"^```.*?^```$", "", text, flags=re.M | re.S)
        here = os.path.dirname(os.path.join(ROOT, page))
        for link in re.findall(r"\]\(([^)#:]+)[^):]*\)", plain):
            if not os.path.exists(os.path.join(here, link)):
                faults.append(f"{page}: the link to {link} leads nowhere")
        for name in re.findall(r"`([^`\s]+)`", plain):
            path = re.fullmatch(r"(?!build/|/|\.\./)[\w.-]+/[\w./-]*", name)
            function = re.fullmatch(r"[A-Z][a-z]+[A-Z]\w+|g_\w+|Device[A-Z]\w+", name)
            placeholder = re.search(r"[A-Z]{4,}/", name)
            if path and not placeholder and not os.path.exists(os.path.join(ROOT, name)):
                faults.append(f"{page}: there is no {name}")
            if function and words and name not in words:
                faults.append(f"{page}: nothing is called {name}")
        lines = [line for kind, _, cmake in blocks(text) if kind == "cmake"
                 for line in cmake.splitlines()]
        faults += [f"{page}: the examples have no {line}" for line in lines
                   if line not in read("examples/CMakeLists.txt")]
    return faults


# --- Commands of a page -----------------------------------------------------------------------


def commands(page):
    """What is to be typed: (line number, command, expected output or None)."""
    for kind, number, text in blocks(page):
        if kind in ("sh", "c"):
            yield number, C_PROGRAM.format(text) if kind == "c" else text, None
        if kind != "console":
            continue
        command, expected = "", []
        for offset, line in enumerate([*text.splitlines(), "$ "]):
            if line.startswith("$ "):
                if command:
                    yield at, command, "\n".join(expected)
                at, command, expected = number + offset, line[2:], []
            elif line.startswith("> "):
                command += "\n" + line[2:]
            else:
                expected.append(line)


def looked_up(command):
    """Whether the lines of a command are all typed elsewhere; they name what is there."""
    lines = [re.sub(r"\s+#.*", "", line) for line in command.splitlines() if line.strip()]
    known = [line for line in lines if any(re.fullmatch(p, line) for p in ELSEWHERE)]
    for line in known:
        first = line.split()[0]
        assert "/" not in first or os.access(os.path.join(ROOT, first), os.X_OK), f"no {first}"
    assert not known or len(known) == len(lines), f"part of it can't be typed:\n{command}"
    return bool(known)


def pattern(expected):
    lines = [r"(?:.*\n)*?" if line.strip() == "..." else
             ".*?".join(map(re.escape, line.rstrip().split("..."))) + r"\s*\n"
             for line in expected.splitlines()]
    return "".join(lines)


def answer(said, _):
    """What is typed where a page's commands ask."""
    line = said.rsplit("\n", 1)[-1]
    if not line.endswith((": ", "? ", "] ")):
        return b""
    return (b"yes" if "es" in line and "PIN" not in line else PIN.encode()) + b"\n"


def test_typed(name):
    todo = [c for c in commands(read(name)) if not looked_up(c[1])]
    with tempfile.TemporaryDirectory() as scratch:
        os.makedirs(f"{scratch}/log")
        os.mkdir(f"{scratch}/home")
        script = [f"cp -r '{ROOT}/examples' .; ln -s '{ROOT}/include' .; mkdir build",
                  "ln -s \"$(dirname \"$(dirname \"$(command -v softdevice)\")\")\" build/release",
                  f"log={scratch}/log"]
        for i, (_, command, expected) in enumerate(todo):
            strict = "set -e\n" if expected is None else ""
            script.append(f"{{ {strict}{command}\n}} >$log/{i}.out 2>$log/{i}.err; "
                          f"echo $? >$log/{i}.code; set +e")
        home = f"{scratch}/home"
        rest, _ = converse(["bash", "-c", "\n".join(script)], answer, home, {
            **os.environ, "LC_ALL": "C.UTF-8", "HOME": home, "VAKRO_FOLDER": home + "/keys"})
        faults = []
        for i, (line, command, expected) in enumerate(todo):
            def logged(kind):
                try:
                    with open(f"{scratch}/log/{i}.{kind}", errors="replace") as file:
                        return file.read()
                except FileNotFoundError:
                    return ""
            code, printed = logged("code").strip(), logged("out") + logged("err")
            fails = command.rstrip().endswith("# fails")
            if (code == "0") == fails or code == "":
                faults.append(f"{name}:{line}: {command.strip()}\n  ended with "
                              f"{code or 'the shell'}: {printed}{rest if code == '' else ''}")
            elif expected and not re.fullmatch(pattern(expected), printed):
                faults.append(f"{name}:{line}: {command.strip()}\n  printed:\n{printed}")
            if code == "":
                break
    assert todo or name == "CONTRIBUTING.md", f"{name} has no command"
    return faults


tests = {"interface": test_interface, "device-file": test_device_file, "names": test_names,
         "typed": test_typed}
found = tests[sys.argv[1]](*sys.argv[2:])
print("\n".join(found) or "as it is written")
sys.exit(1 if found else 0)
