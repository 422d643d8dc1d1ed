#!/usr/bin/env python3
"""Plays a session of tests/data/: sessions_test.py FILE TITLE

The head of data/softdevice.txt says what stands in such a file."""
import os
import pathlib
import subprocess
import sys
import tempfile

from support.terminal import await_echo, converse, free_port


def read_sessions(file):
    """The steps and the items of each session, by its title."""
    sessions = {}
    for line in open(pathlib.Path(__file__).parent / "data" / file):
        mark, _, text = line.rstrip("\n").partition(" ")
        if mark == "==":
            steps, items = sessions[text] = [], []
        elif mark == "*":
            items.append(text)
        elif mark == "$":
            steps.append({"line": text, "status": 0, "says": [], "answers": []})
        elif mark == "?":
            steps[-1]["status"] = int(text)
        elif mark == ">":
            steps[-1]["says"].append(text)
        elif mark == "<^":
            steps[-1]["answers"].append(("<", chr(ord(text) - 64)))
        elif mark in ("<", "<+", "<!"):
            steps[-1]["answers"].append((mark, text))
        elif mark not in ("", "#"):
            sys.exit(f"no mark of a session: {line}")
    return sessions


def take(line, status, says, answers):
    """Takes a step in a shell on a terminal of its own."""
    left = list(answers)

    def answer(said, terminal):
        if not said.endswith(": ") or not left:
            return b""
        mark, text = left.pop(0)
        if mark == "<!":
            subprocess.run(["sh", "-c", text], check=True)
            mark, text = left.pop(0)
        await_echo(terminal, mark == "<+")  # the prompt comes first
        return text.encode() + (b"\n" if text >= " " else b"")

    said, ended = converse(["sh", "-c", line], answer)
    missing = [text for text in says if text not in said]
    shown = [text for mark, text in answers if mark == "<" and text in said]
    if ended != status or left or missing or shown:
        sys.exit(f"$ {line}\n{said}\nstatus {ended}, {left=}, {missing=}, {shown=}, "
                 f"IT={os.environ['IT']}")


sessions = read_sessions(sys.argv[1])
first = next(iter(sessions.values()))
steps, items = sessions[sys.argv[2]]
for item in items or [""]:
    with tempfile.TemporaryDirectory() as scratch:
        os.chdir(scratch)
        os.environ |= {"IT": item, "HOME": scratch, "TMPDIR": scratch, "XDG_RUNTIME_DIR": scratch,
                       "VAKRO_FOLDER": scratch + "/keys", "PORT": free_port()}
        for step in first[0] + steps:
            take(**step)
