"""Entry of the `tessel` command (python -m tessel); Ctrl-C is handled as
tessel._interrupt describes (installed when the package loaded)."""
import os
import sys

from . import _interrupt

_interrupt.install()
try:
    from .cli import main

    code = main()
except KeyboardInterrupt:
    _interrupt.interrupted()
if code == 130:             # the command reported the interrupt itself
    os._exit(130)
sys.exit(code)
