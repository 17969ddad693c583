"""Tests of the model compiler: its command line, the errors of bad models (with the
model's file and line) and rules of the language. What the generated C++ does is tested by
compiling real models: tests/Models and every model of the libraries."""

import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
TOOL = os.path.dirname(HERE)
sys.path.insert(0, TOOL)

from moxc.cpp import generate  # noqa: E402
from moxc.model import ModelError, parse  # noqa: E402


class CommandLine(unittest.TestCase):
    def run_moxgen(self, root, out, *models):
        return subprocess.run([sys.executable, os.path.join(TOOL, "moxgen"), "--root", root,
                               "--out", out, *models], capture_output=True, text=True)

    def test_writes_header_and_source_under_the_model_folder(self):
        with tempfile.TemporaryDirectory() as tmp:
            root = os.path.join(tmp, "models")
            os.makedirs(os.path.join(root, "Korva"))
            model = os.path.join(root, "Korva", "Thing.mox")
            with open(model, "w") as f:
                f.write("namespace Korva\nvalue Thing : U8 max 9\n")
            result = self.run_moxgen(root, os.path.join(tmp, "gen"), model)
            self.assertEqual(result.returncode, 0, result.stderr)
            with open(os.path.join(tmp, "gen", "Korva", "Thing.mox.cpp")) as f:
                source = f.read()
            self.assertIn("#include <Korva/Thing.mox.h>", source)
            self.assertTrue(os.path.exists(os.path.join(tmp, "gen", "Korva", "Thing.mox.h")))

    def test_bad_model_fails_with_file_and_line_and_writes_nothing(self):
        with tempfile.TemporaryDirectory() as tmp:
            model = os.path.join(tmp, "Bad.mox")
            with open(model, "w") as f:
                f.write("namespace Korva\nentity Bad(name : Name)\n  count : U32 countr\n")
            result = self.run_moxgen(tmp, os.path.join(tmp, "gen"), model)
            self.assertEqual(result.returncode, 1)
            self.assertEqual(result.stderr, f"moxgen: {model}:3: unexpected 'countr'\n")
            self.assertFalse(os.path.exists(os.path.join(tmp, "gen")))


class Errors(unittest.TestCase):
    """Each mistake is reported at its line with a message that says what is wrong."""

    CASES = [
        ("value X : U8\n", 1, "namespace must come before the first definition"),
        ("namespace A\nnamespace B\n", 2, "namespace given twice"),
        ("namespace A\nstruct X\n", 2, "unknown statement 'struct'"),
        ("namespace A\n  x : U8\n", 2, "indented line outside a definition"),
        ("namespace A\nlibrary Pylon\n", 2, "library must be Mox or Korva, not 'Pylon'"),
        ("namespace A\ninclude Foo.h\n", 2, 'include takes <path> or "path"'),
        ("namespace A\nenum E\n", 2, "enum 'E' has no values"),
        ("namespace A\nenum E : double\n  a = 1\n", 2,
         "enum base must be an integer type, not 'double'"),
        ("namespace A\nenum E\n  a = 1\n  b = 1\n", 4, "value 1 used twice"),
        ("namespace A\nenum E\n  a = 1\n  a = 2\n", 4, "enumerator 'a' defined twice"),
        ("namespace A\nenum E\n  a = 1 \"x\"\n  b = 2 \"x\"\n", 4, "text 'x' empty or used twice"),
        ("namespace A\nenum E\n  a\n", 3, 'expected: name = number ["text"]'),
        ("namespace A\nvalue V : String8 max 3\n", 2, "min and max need an integer type"),
        ("namespace A\nvalue V : U8 maxBytes 3\n", 2, "maxBytes needs a string type"),
        ("namespace A\nvalue V : U8\n  x : U8\n", 3,
         "a value with ': Type' holds only that value, or integer flags as 'name : bit N'"),
        ("namespace A\nvalue V : String8\n  x : bit 1\n", 3,
         "a value with ': Type' holds only that value, or integer flags as 'name : bit N'"),
        ("namespace A\nvalue V : U8\n  x : bit 8\n", 3, "bit 8 does not fit the value"),
        ("namespace A\nvalue V : U32 max 0xf\n  x : bit 4\n", 3, "bit 4 does not fit the value"),
        ("namespace A\nvalue V : U8\n  x : bit 1\n  y : bit 1\n", 4,
         "flag 'y' or bit 1 used twice"),
        ("namespace A\nvalue V\n  x : U8[U8]\n", 3, "value attributes cannot be collections"),
        ("namespace A\nvalue V\n  x : U8\n  x : U16\n", 4, "attribute 'x' defined twice"),
        ("namespace A\nvalue V\nvalue V\n", 3, "'V' defined twice"),
        ("namespace A\nentity E\n", 2,
         "expected: entity Name(arg : Type, ...) [: Base[(args)]] [handwritten] [nolog]"),
        ("namespace A\nentity E(name : Name) hand\n", 2,
         "expected: entity Name(arg : Type, ...) [: Base[(args)]] [handwritten] [nolog]"),
        ("namespace A\nentity E(name : Name)\n  name : U8\n", 3,
         "'name' is already a constructor argument"),
        ("namespace A\nentity E(name : Name)\n  x : U8 array\n", 3,
         "'array' needs an index type: x : T[Index]"),
        ("namespace A\nentity E(name : Name)\n  x : U8[U16] queue\n", 3,
         "queues are keyed by a U32 sequence"),
        ("namespace A\nentity E(name : Name)\n  x : String8 counter\n", 3,
         "counters are integer attributes"),
        ("namespace A\nentity E(name : Name)\n  x : bool max 1\n", 3,
         "min and max belong to integer attributes"),
        ("namespace A\nentity E(name : Name)\n  x : U8[U8] = 3\n", 3,
         "collections start empty and take no default"),
        ("namespace A\nentity E(name : Name)\n  x : U8[U8] inline\n", 3,
         "'inline' belongs to unbounded scalars and queues"),
        ("namespace A\nentity E(name : Name)\n  x : U8 max 9 inline\n", 3,
         "'inline' belongs to unbounded scalars and queues"),
        ("namespace A\nentity E(name : Name)\n  x : U8 key k\n", 3,
         "'key' belongs to keyed collections"),
        ("namespace A\nentity E(name : Name) handwritten\n  x : U8[U8] handler handleX\n", 3,
         "handlers belong to scalar attributes"),
        ("namespace A\nentity E(name : Name)\n  x : U8 handler handleX\n", 3,
         "handlers belong to hand-written entities: add 'handwritten' to the entity line"),
        ("namespace A\nentity E(name : Name)\n  method void run();\n", 3,
         "only values have methods: behaviour of an entity goes in its hand-written class"),
        ("namespace A\nentity B(name : Name) handwritten\nentity E(name : Name) : B\n", 3,
         "base 'B' is hand-written: derive from it in another model"),
        ("namespace A\nentity E(name : Name) : Other\n", 2,
         "base 'Other' is not in this model: give its constructor arguments, as in ': Base(name)'"),
        ("namespace A\nentity B(id : U8)\nentity E(name : Name) : B\n", 3,
         "base 'B' needs argument 'id'"),
        ("namespace A\nvalue V\n\tx : U8\n", 3, "indent with spaces, not tabs"),
        ("namespace A\nvalue V\n  factory f\n", 3, "only entities have factories"),
        ("namespace A\nentity E(name : Name)\n  x : E factory f\n", 3,
         "child entities need a key: x : T[Key]"),
        ("namespace A\nentity E(name : Name)\n  x : U8[Name] initial a\n", 3,
         "'named' and 'initial' belong to child entities"),
        ("namespace A\nenum E\n  enum F\n", 3, "enums nest only in entities and values"),
    ]

    def test_errors(self):
        for text, line, message in self.CASES:
            with self.subTest(model=text):
                with self.assertRaises(ModelError) as caught:
                    parse("m.mox", text)
                self.assertEqual(str(caught.exception), f"m.mox:{line}: {message}")


class Language(unittest.TestCase):
    def test_comments_become_documentation_and_trailing_comments_vanish(self):
        model = parse("m.mox", "namespace A\n# Doc of V.\n\nvalue V # not doc\n# Doc of x.\n"
                      "  x : U8 = 4  # neither\n")
        value = model.find("V")
        self.assertEqual(value.doc, [])  # a blank line ends a comment block
        self.assertEqual(value.attrs[0].doc, ["Doc of x."])
        self.assertEqual(value.attrs[0].default, "4")

    def test_bound_messages_show_literals_and_point_at_expressions(self):
        model = parse("Desc.mox", "namespace A\nentity D(name : Name)\n\n  a : U8 max 0x7e\n"
                      "  b : U8 max limit()\n")
        header, source = generate(model, "A/Desc.mox.h")
        self.assertIn('"D::a > 0x7e not allowed"', source)
        self.assertIn('"D::b > Expr @Desc.mox:5 not allowed"', source)

    def test_unsigned_bounds_that_cannot_fail_are_not_compared(self):
        # An always-false comparison would be a compiler warning.
        header, source = generate(parse("m.mox", "namespace A\nvalue K : U8 min 0 max 255\n"),
                                  "K.mox.h")
        self.assertNotIn("value < 0", source)
        self.assertNotIn("value > 255", source)
        self.assertIn('"K::value < K::min or > K::max not allowed"', header)
        header, source = generate(parse("m.mox", "namespace A\nentity E()\n  a : U8 min 0\n"),
                                  "E.mox.h")
        self.assertNotIn("checkEA", source)  # nor a check function with nothing to check


if __name__ == "__main__":
    unittest.main()
