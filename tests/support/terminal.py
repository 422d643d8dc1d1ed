"""Runs programs on a terminal of their own, as a person would."""
import ctypes
import os
import pty
import select
import signal
import socket
import termios
import time

PR_SET_CHILD_SUBREAPER = 36
SILENCE = 120  # seconds without a word, after which a program is taken to hang


def free_port():
    """A TCP port of this machine that nobody uses now."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return str(probe.getsockname()[1])


def await_echo(terminal, on):
    """Waits until the program that asks has turned the echo off, or left it on: it may throw away
    what is typed before."""
    until = time.monotonic() + SILENCE
    while bool(termios.tcgetattr(terminal)[3] & termios.ECHO) != on and time.monotonic() < until:
        time.sleep(0.001)


def end_orphans():
    with open(f"/proc/self/task/{os.getpid()}/children") as file:
        orphans = [int(process) for process in file.read().split()]
    for process in orphans:
        os.kill(process, signal.SIGKILL)
        os.waitpid(process, 0)
    if orphans:
        end_orphans()  # they may have had children


def converse(program, answer, folder=".", environment=os.environ):
    """What the program says, and its exit status; a negative one is a signal. answer(said,
    terminal) gives the bytes that are typed next, if any. What it leaves running is killed."""
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)  # orphans become children of this process
    child, terminal = pty.fork()
    if child == 0:
        settings = termios.tcgetattr(0)
        settings[3] |= termios.NOFLSH  # else a control key discards what has been said
        termios.tcsetattr(0, termios.TCSANOW, settings)
        os.chdir(folder)
        os.execvpe(program[0], program, environment)
    said, ended, until = "", 0, time.monotonic() + SILENCE
    while not ended:
        if time.monotonic() > until:
            said += f"\n(silent for {SILENCE} seconds)"
            os.kill(child, signal.SIGKILL)
        ended, status = os.waitpid(child, os.WNOHANG)
        try:
            while select.select([terminal], [], [], 0 if ended else 0.1)[0]:
                said += os.read(terminal, 4096).decode(errors="replace")
                os.write(terminal, answer(said, terminal) or b"")
                until = time.monotonic() + SILENCE
        except OSError:  # nobody has the terminal any more
            pass
    os.close(terminal)
    end_orphans()
    return said, os.waitstatus_to_exitcode(status)
