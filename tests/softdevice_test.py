#!/usr/bin/env python3
"""Plays a session of data/softdevice.txt with the built program: softdevice_test.py TITLE"""
import os
import pathlib
import subprocess
import sys
import tempfile
import termios
import time

from support.terminal import converse


def read_sessions():
    """The steps and the items of each session, by its title."""
    sessions = {}
    for line in open(pathlib.Path(__file__).parent / "data/softdevice.txt"):
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
    return sessions


def await_echo(terminal, on):
    """Waits until the program that asks has turned the echo off, or left it on. ctest ends a
    program that never does."""
    while bool(termios.tcgetattr(terminal)[3] & termios.ECHO) != on:
        time.sleep(0.001)


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
        sys.exit(f"$ {line}\n{said}\nstatus {ended}, {left=}, {missing=}, {shown=}")


sessions = read_sessions()
first = next(iter(sessions.values()))
steps, items = sessions[sys.argv[1]]
for item in items or [""]:
    with tempfile.TemporaryDirectory() as scratch:
        os.chdir(scratch)
        os.environ["IT"] = item
        for step in first[0] + steps:
            take(**step)
