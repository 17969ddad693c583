"""Reads a model file (*.mox) into plain model objects.

The language is line based: a definition starts at column 0 and its members are the
indented lines under it, one member per line. `#` starts a comment; comment lines right
above a definition or a member become its documentation. See tools/moxgen/README.md.
"""

import os
import re
from dataclasses import dataclass, field
from typing import List, Optional

IDENT = r"[A-Za-z_]\w*"
QUALIFIED = rf"{IDENT}(?:::{IDENT})*"
# Integer bounds written as numbers appear verbatim in messages; anything else is an
# expression and the message points at the model line instead.
LITERAL_BOUND = re.compile(r"^-?(?:0[xX][0-9a-fA-F]+|\d+)$")

INTEGER_TYPES = {"U8", "U16", "U32", "U64", "S32", "S64", "int", "unsigned",
                 "Mox::U8", "Mox::U16", "Mox::U32", "Mox::U64", "Mox::S32", "Mox::S64"}
STRING_TYPES = {"String8", "Name", "Mox::String8", "Mox::Name", "std::string"}
SMALL_TYPES = INTEGER_TYPES | {"bool", "char", "double", "float"}


class ModelError(Exception):
    """A mistake in a model file, reported as `file:line: message`."""

    def __init__(self, path, line, message):
        super().__init__(f"{path}:{line}: {message}")


@dataclass
class Bound:
    text: str  # as written in the model
    line: int

    @property
    def literal(self):
        return bool(LITERAL_BOUND.match(self.text))


@dataclass
class Attr:
    name: str
    type: str
    line: int
    doc: List[str] = field(default_factory=list)
    key: Optional[str] = None      # key or index type of a collection
    kind: str = "scalar"           # scalar | map | array | queue | children
    factory: Optional[str] = None  # makes the child entity of a new key
    named: bool = False            # children are named after their key's text: f(name, key)
    initial: List[str] = field(default_factory=list)  # keys whose children the entity makes
    key_member: Optional[str] = None  # the value's attribute that is its key
    counter: bool = False
    virtual: bool = False
    inline: bool = False           # accessors defined in the header
    handler: Optional[str] = None  # member the setters call after a real change
    min: Optional[Bound] = None
    max: Optional[Bound] = None
    default: Optional[str] = None


@dataclass
class Bit:
    name: str
    bit: int
    line: int
    doc: List[str] = field(default_factory=list)


@dataclass
class EnumEntry:
    name: str
    value: str
    text: str
    line: int


@dataclass
class EnumDef:
    name: str
    base: str
    line: int
    doc: List[str] = field(default_factory=list)
    entries: List[EnumEntry] = field(default_factory=list)
    owner: Optional[str] = None  # the class a nested enumeration belongs to

    @property
    def qualified(self):
        return f"{self.owner}::{self.name}" if self.owner else self.name


@dataclass
class ValueDef:
    name: str
    line: int
    doc: List[str] = field(default_factory=list)
    attrs: List[Attr] = field(default_factory=list)
    methods: List[str] = field(default_factory=list)
    enums: List[EnumDef] = field(default_factory=list)
    bits: List[Bit] = field(default_factory=list)  # named flags of an integer value
    wrapped: Optional[str] = None  # a wrapper value holds one `value` of this type
    min: Optional[Bound] = None
    max: Optional[Bound] = None
    max_bytes: Optional[Bound] = None


@dataclass
class Arg:
    name: str
    type: str
    min: Optional[Bound] = None
    max: Optional[Bound] = None


@dataclass
class EntityDef:
    name: str
    line: int
    doc: List[str] = field(default_factory=list)
    args: List[Arg] = field(default_factory=list)
    base: str = "Mox::Entity"
    base_args: Optional[str] = None
    factory: Optional[str] = None
    attrs: List[Attr] = field(default_factory=list)
    enums: List[EnumDef] = field(default_factory=list)
    # The class is written by hand on the generated `NameBase`, which holds the data.
    handwritten: bool = False
    # Never streamed by the attribute log: its changes stay inside the process.
    nolog: bool = False

    @property
    def cls(self):
        """The class the model generates."""
        return f"{self.name}Base" if self.handwritten else self.name


@dataclass
class Model:
    path: str
    namespace: Optional[str] = None
    library: Optional[str] = None
    includes: List[str] = field(default_factory=list)
    types: list = field(default_factory=list)

    @property
    def file_name(self):
        return os.path.basename(self.path)

    def find(self, name):
        """The definition of a name, nested enumerations included (by either name)."""
        for t in self.types:
            if t.name == name:
                return t
            for e in getattr(t, "enums", []):
                if name in (e.name, e.qualified):
                    return e
        return None


def strip_comment(text):
    """Drops a trailing `# comment`, leaving `#` inside double quotes alone."""
    quoted = False
    for i, c in enumerate(text):
        if c == '"':
            quoted = not quoted
        elif c == "#" and not quoted:
            return text[:i].rstrip()
    return text.rstrip()


class Parser:
    def __init__(self, path, text):
        self.path = path
        self.model = Model(path)
        self.text = text
        self.current = None  # the definition that indented lines belong to
        self.nested = None  # (owner, indent) while the lines of a nested enum are read
        self.doc = []

    def error(self, line, message):
        raise ModelError(self.path, line, message)

    def parse(self):
        for number, raw in enumerate(self.text.splitlines(), start=1):
            stripped = raw.strip()
            if not stripped:
                self.doc = []
                continue
            if stripped.startswith("#"):
                self.doc.append(stripped[1:].strip())
                continue
            if "\t" in raw[: len(raw) - len(raw.lstrip())]:
                self.error(number, "indent with spaces, not tabs")
            line = strip_comment(stripped)
            doc, self.doc = self.doc, []
            indent = len(raw) - len(raw.lstrip())
            if self.nested and indent <= self.nested[1]:
                self.current, self.nested = self.nested[0], None
            if indent:
                if self.current is None:
                    self.error(number, "indented line outside a definition")
                self.member(number, line, doc, indent)
            else:
                self.top(number, line, doc)
        self.check()
        return self.model

    # --- top level ---------------------------------------------------------------------

    def top(self, number, line, doc):
        keyword, _, rest = line.partition(" ")
        rest = rest.strip()
        self.current = None
        if keyword == "namespace":
            if self.model.namespace:
                self.error(number, "namespace given twice")
            if not re.fullmatch(QUALIFIED, rest):
                self.error(number, f"bad namespace '{rest}'")
            self.model.namespace = rest
        elif keyword == "library":
            if rest not in ("Mox", "Korva"):
                self.error(number, f"library must be Mox or Korva, not '{rest}'")
            self.model.library = rest
        elif keyword == "include":
            if not re.fullmatch(r'<[^>\s]+>|"[^"\s]+"', rest):
                self.error(number, "include takes <path> or \"path\"")
            self.model.includes.append(rest)
        elif keyword in ("enum", "value", "entity"):
            if not self.model.namespace:
                self.error(number, "namespace must come before the first definition")
            definition = getattr(self, keyword)(number, rest, doc)
            if self.model.find(definition.name):
                self.error(number, f"'{definition.name}' defined twice")
            self.model.types.append(definition)
            self.current = definition
        else:
            self.error(number, f"unknown statement '{keyword}'")

    def enum(self, number, rest, doc):
        m = re.fullmatch(rf"({IDENT})(?:\s*:\s*({QUALIFIED}))?", rest)
        if not m:
            self.error(number, "expected: enum Name [: IntegerType]")
        base = m.group(2) or "U32"
        if base not in INTEGER_TYPES:
            self.error(number, f"enum base must be an integer type, not '{base}'")
        return EnumDef(m.group(1), base, number, doc)

    def value(self, number, rest, doc):
        m = re.fullmatch(rf"({IDENT})(?:\s*:\s*(\S+)(.*))?", rest)
        if not m:
            self.error(number, "expected: value Name [: Type [min N] [max N] [maxBytes N]]")
        value = ValueDef(m.group(1), number, doc)
        if m.group(2):
            value.wrapped = m.group(2)
            options = self.options(number, m.group(3), {"min", "max", "maxBytes"})
            value.min, value.max = options.get("min"), options.get("max")
            value.max_bytes = options.get("maxBytes")
            if (value.min or value.max) and value.wrapped not in INTEGER_TYPES:
                self.error(number, "min and max need an integer type")
            if value.max_bytes and value.wrapped not in STRING_TYPES:
                self.error(number, "maxBytes needs a string type")
        return value

    def entity(self, number, rest, doc):
        m = re.fullmatch(rf"({IDENT})\s*\(([^)]*)\)(?:\s*:\s*({QUALIFIED})(?:\((.*)\))?)?"
                         r"((?:\s+(?:handwritten|nolog))*)", rest)
        if not m:
            self.error(number, "expected: entity Name(arg : Type, ...) [: Base[(args)]] "
                       "[handwritten] [nolog]")
        flags = m.group(5).split()
        entity = EntityDef(m.group(1), number, doc, handwritten="handwritten" in flags,
                           nolog="nolog" in flags)
        for text in filter(None, (a.strip() for a in m.group(2).split(","))):
            am = re.fullmatch(rf"({IDENT})\s*:\s*(\S+)(.*)", text)
            if not am:
                self.error(number, f"bad constructor argument '{text}'")
            options = self.options(number, am.group(3), {"min", "max"})
            entity.args.append(Arg(am.group(1), am.group(2), options.get("min"),
                                   options.get("max")))
        if m.group(3):
            entity.base = m.group(3)
            entity.base_args = m.group(4)
        return entity

    def options(self, number, text, allowed):
        words = text.split()
        options = {}
        while words:
            word = words.pop(0)
            if word not in allowed or not words:
                self.error(number, f"unexpected '{word}'")
            options[word] = Bound(words.pop(0), number)
        return options

    # --- members -----------------------------------------------------------------------

    def member(self, number, line, doc, indent):
        definition = self.current
        if line.startswith("enum "):
            if isinstance(definition, EnumDef):
                self.error(number, "enums nest only in entities and values")
            nested = self.enum(number, line[len("enum "):].strip(), doc)
            if self.model.find(nested.name):
                self.error(number, f"'{nested.name}' defined twice")
            nested.owner = definition.cls if isinstance(definition, EntityDef) else definition.name
            definition.enums.append(nested)
            self.nested = (definition, indent)
            self.current = nested
        elif line.startswith("method "):
            if not isinstance(definition, ValueDef):
                self.error(number, "only values have methods: behaviour of an entity goes in "
                           "its hand-written class")
            definition.methods.append(line[len("method "):].strip())
        elif isinstance(definition, EnumDef):
            self.enum_entry(number, line)
        elif line.startswith("factory "):
            if not isinstance(definition, EntityDef):
                self.error(number, "only entities have factories")
            definition.factory = line.split(None, 1)[1].strip()
            if not re.fullmatch(IDENT, definition.factory):
                self.error(number, f"bad factory name '{definition.factory}'")
        else:
            if isinstance(definition, ValueDef) and definition.wrapped:
                self.bit(number, line, doc)
                return
            attr = self.attr(number, line, doc)
            if isinstance(definition, ValueDef) and attr.kind != "scalar":
                self.error(number, "value attributes cannot be collections")
            if any(a.name == attr.name for a in definition.attrs):
                self.error(number, f"attribute '{attr.name}' defined twice")
            if isinstance(definition, EntityDef) and any(a.name == attr.name
                                                         for a in definition.args):
                self.error(number, f"'{attr.name}' is already a constructor argument")
            if attr.handler and not getattr(definition, "handwritten", False):
                self.error(number, "handlers belong to hand-written entities: add "
                           "'handwritten' to the entity line")
            definition.attrs.append(attr)

    def bit(self, number, line, doc):
        """A named flag of an integer value: `name : bit N`."""
        value = self.current
        m = re.fullmatch(rf"({IDENT})\s*:\s*bit\s+(\d+)", line)
        if not m or value.wrapped not in INTEGER_TYPES:
            self.error(number, "a value with ': Type' holds only that value, or integer "
                       "flags as 'name : bit N'")
        name, bit = m.group(1), int(m.group(2))
        width = 8 * {"8": 1, "16": 2, "32": 4, "64": 8}.get(re.sub(r"\D", "", value.wrapped), 4)
        if bit >= width or (value.max and value.max.literal and 1 << bit > int(value.max.text, 0)):
            self.error(number, f"bit {bit} does not fit the value")
        if any(b.name == name or b.bit == bit for b in value.bits):
            self.error(number, f"flag '{name}' or bit {bit} used twice")
        value.bits.append(Bit(name, bit, number, doc))

    def enum_entry(self, number, line):
        m = re.fullmatch(rf'({IDENT})\s*=\s*(-?(?:0[xX][0-9a-fA-F]+|\d+))(?:\s+"([^"]*)")?', line)
        if not m:
            self.error(number, 'expected: name = number ["text"]')
        name, value, text = m.group(1), m.group(2), m.group(3)
        entries = self.current.entries
        if any(e.name == name for e in entries):
            self.error(number, f"enumerator '{name}' defined twice")
        if any(int(e.value, 0) == int(value, 0) for e in entries):
            self.error(number, f"value {value} used twice")
        text = name if text is None else text
        if not text or any(e.text == text for e in entries):
            self.error(number, f"text '{text}' empty or used twice")
        entries.append(EnumEntry(name, value, text, number))

    def attr(self, number, line, doc):
        m = re.fullmatch(rf"({IDENT})\s*:\s*(\S+?)(?:\[(\S+)\])?(?:\s+([^=]*?))?\s*(?:=\s*(.+))?",
                         line)
        if not m:
            self.error(number, "expected: name : Type[Key] [flags] [= default]")
        attr = Attr(m.group(1), m.group(2), number, doc, key=m.group(3), default=m.group(5))
        if attr.key:
            attr.kind = "map"
        words = (m.group(4) or "").split()
        while words:
            word = words.pop(0)
            if word in ("counter", "virtual", "named", "inline"):
                setattr(attr, word, True)
            elif word in ("array", "queue"):
                if not attr.key:
                    self.error(number, f"'{word}' needs an index type: {attr.name} : T[Index]")
                attr.kind = word
            elif word == "handler" and words:
                attr.handler = words.pop(0)
            elif word in ("key", "min", "max", "factory", "initial") and words:
                value = words.pop(0)
                if word == "initial":
                    attr.initial.append(value)
                elif word == "key":
                    attr.key_member = value
                elif word == "factory":
                    if not attr.key:
                        self.error(number, f"child entities need a key: {attr.name} : T[Key]")
                    attr.kind, attr.factory = "children", value
                else:
                    setattr(attr, word, Bound(value, number))
            else:
                self.error(number, f"unexpected '{word}'")
        if attr.key_member and attr.kind != "map":
            self.error(number, "'key' belongs to keyed collections")
        if (attr.named or attr.initial) and attr.kind != "children":
            self.error(number, "'named' and 'initial' belong to child entities")
        if attr.kind == "queue" and attr.key not in ("U32", "Mox::U32"):
            self.error(number, "queues are keyed by a U32 sequence")
        if attr.counter and (attr.kind != "scalar" or attr.type not in INTEGER_TYPES):
            self.error(number, "counters are integer attributes")
        if (attr.min or attr.max) and (attr.kind != "scalar" or attr.type not in INTEGER_TYPES):
            self.error(number, "min and max belong to integer attributes")
        if attr.handler and attr.kind != "scalar":
            self.error(number, "handlers belong to scalar attributes")
        if attr.inline and (attr.kind not in ("scalar", "queue") or attr.min or attr.max):
            self.error(number, "'inline' belongs to unbounded scalars and queues")
        if attr.default and attr.kind != "scalar":
            self.error(number, "collections start empty and take no default")
        return attr

    def check(self):
        if not self.model.namespace:
            self.error(1, "missing namespace")
        enums = [t for t in self.model.types if isinstance(t, EnumDef)]
        enums += [e for t in self.model.types for e in getattr(t, "enums", [])]
        for e in enums:
            if not e.entries:
                self.error(e.line, f"enum '{e.name}' has no values")
        for t in self.model.types:
            if not isinstance(t, EntityDef):
                continue
            base = self.model.find(t.base)
            if isinstance(base, EntityDef) and base.handwritten:
                self.error(t.line, f"base '{t.base}' is hand-written: derive from it in "
                           "another model")
            if t.base != "Mox::Entity" and t.base_args is None:
                if not isinstance(base, EntityDef):
                    self.error(t.line, f"base '{t.base}' is not in this model: give its "
                               "constructor arguments, as in ': Base(name)'")
                missing = [a.name for a in base.args if a.name not in {x.name for x in t.args}]
                if missing:
                    self.error(t.line, f"base '{t.base}' needs argument '{missing[0]}'")


def parse(path, text=None):
    if text is None:
        with open(path, encoding="utf-8") as f:
            text = f.read()
    return Parser(path, text).parse()
