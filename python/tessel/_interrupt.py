"""Ctrl-C in the `tessel` command: one line, exit status 130, nothing else.

Output still buffered is dropped and a library call still running is
abandoned (no partial output). An interrupt that arrives while a module is
being imported is held until the import is done: numpy, for one, turns a
KeyboardInterrupt raised inside its import into an ImportError.
"""

import os
import signal
import sys


def interrupted():
    """Ends the command as interrupted."""
    try:
        sys.stderr.write("tessel: interrupted\n")
        sys.stderr.flush()
    finally:
        os._exit(130)


def _on_interrupt(signum, frame):
    f = frame
    while f is not None:
        if f.f_code.co_filename.startswith("<frozen importlib"):
            signal.setitimer(signal.ITIMER_REAL, 0.02)     # again once the import is done
            return
        f = f.f_back
    raise KeyboardInterrupt


def install():
    """From here on Ctrl-C raises KeyboardInterrupt, except inside imports."""
    signal.signal(signal.SIGALRM, _on_interrupt)
    signal.signal(signal.SIGINT, _on_interrupt)
