"""Entry of the `tessel` command (python -m tessel)."""
import os
import signal
import sys


def _interrupted():
    # Ctrl-C: one line and exit status 130; output still buffered is dropped
    # and a library call still running is abandoned (no partial output).
    try:
        sys.stderr.write("tessel: interrupted\n")
        sys.stderr.flush()
    finally:
        os._exit(130)


signal.signal(signal.SIGINT, signal.default_int_handler)   # KeyboardInterrupt from here on
try:
    from .cli import main

    code = main()
except KeyboardInterrupt:
    _interrupted()
if code == 130:             # the command reported the interrupt itself
    os._exit(130)
sys.exit(code)
