"""Entry of the `tessel` command (python -m tessel)."""
import sys

from .cli import main

sys.exit(main())
