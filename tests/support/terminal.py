"""Runs programs on a terminal of their own, as a person would."""
import os
import pty
import termios


def converse(program, answer, folder=".", environment=os.environ):
    """What the program says, and its exit status; a negative one is a signal. answer(said, terminal)
    gives the bytes that are typed next, if any."""
    child, terminal = pty.fork()
    if child == 0:
        settings = termios.tcgetattr(0)
        settings[3] |= termios.NOFLSH  # else a control key discards what has been said
        termios.tcsetattr(0, termios.TCSANOW, settings)
        os.chdir(folder)
        os.execvpe(program[0], program, environment)
    said = ""
    try:
        while True:
            said += os.read(terminal, 4096).decode(errors="replace")
            os.write(terminal, answer(said, terminal) or b"")
    except OSError:  # the program has ended
        os.close(terminal)
    return said, os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
