"""python3 -m nuvrix plots [lens.json] --out DIR: the figures of a lens (the
built-in Cooke triplet without a file) as PNG files."""

import argparse
import sys

from . import plots
from ._native import NuvrixError
from .lens import Lens


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m nuvrix")
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("plots", help="write the figures of a lens as PNG files")
    p.add_argument("lens", nargs="?", help="a JSON lens file (default: the Cooke triplet)")
    p.add_argument("--out", default="plots", help="folder of the PNG files (default: plots)")
    args = parser.parse_args(argv)
    try:
        lens = Lens.from_file(args.lens) if args.lens else Lens.cooke_triplet()
        for path in plots.write(lens, args.out):
            print(path)
    except NuvrixError as e:
        print(f"nuvrix: {e}", file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
