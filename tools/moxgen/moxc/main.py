"""Command line: moxgen --root DIR --out DIR MODEL..."""

import argparse
import os
import sys

from .cpp import generate
from .model import ModelError, parse


def output_stem(model_path, root):
    relative = os.path.relpath(model_path, root)
    if relative.startswith(".."):
        raise ModelError(model_path, 1, f"model is not under the root {root}")
    return os.path.splitext(relative)[0]


def write(path, text):
    """Leaves a file that already holds `text` untouched, so that a change to the compiler
    rebuilds only the C++ whose generated code it changed."""
    try:
        with open(path, encoding="utf-8") as f:
            if f.read() == text:
                return
    except FileNotFoundError:
        pass
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="moxgen",
        description="Compiles model files into C++: ROOT/Dir/Name.mox becomes "
        "OUT/Dir/Name.mox.h and OUT/Dir/Name.mox.cpp.")
    parser.add_argument("--root", required=True, help="folder the model paths are relative to")
    parser.add_argument("--out", help="folder for the generated files (omit to only check)")
    parser.add_argument("models", nargs="+")
    args = parser.parse_args(argv)
    try:
        for path in args.models:
            model = parse(path)
            stem = output_stem(path, args.root)
            header, source = generate(model, stem + ".mox.h")
            if args.out:
                write(os.path.join(args.out, stem + ".mox.h"), header)
                write(os.path.join(args.out, stem + ".mox.cpp"), source)
    except ModelError as error:
        print(f"moxgen: {error}", file=sys.stderr)
        return 1
    except OSError as error:
        print(f"moxgen: {error}", file=sys.stderr)
        return 1
    return 0
