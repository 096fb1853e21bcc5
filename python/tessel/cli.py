"""The `tessel` command."""
import argparse

from . import _lowlevel


def _demo(_args):
    print(f"Tessel {_lowlevel.version()}")
    with _lowlevel.capture_messages() as lines:
        _lowlevel.call("LgmAbout")
    for line in lines:
        print(line)
    return 0


def main(argv=None):
    parser = argparse.ArgumentParser(prog="tessel", description="State space models for time series.")
    sub = parser.add_subparsers(dest="command", required=True)
    demo = sub.add_parser("demo", help="run the bundled demonstration")
    demo.set_defaults(func=_demo)
    args = parser.parse_args(argv)
    return args.func(args)
