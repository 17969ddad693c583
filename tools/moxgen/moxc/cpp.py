"""Writes the C++ header and source of a parsed model."""

import re

from .model import EnumDef, ValueDef, INTEGER_TYPES, SMALL_TYPES, STRING_TYPES

# The largest value of each unsigned type, to leave out checks that cannot fail.
UNSIGNED_TYPES = {f"{prefix}U{bits}": 2**bits - 1
                  for prefix in ("", "Mox::") for bits in (8, 16, 32, 64)}

# Runtime type names a model may write bare; generated code spells them Mox::X so that it
# compiles in any namespace.
MOX_NAMES = re.compile(r"(?<![\w:])(U8|U16|U32|U64|S32|S64|String8|Name|TextIter)\b")


def fill(head, items, tail, limit=100):
    """head + items joined by ", " + tail, broken like clang-format does when too long:
    continuation lines align under the first item."""
    one = head + ", ".join(items) + tail
    if len(one) <= limit or not items:
        return one
    lines, line = [], head + items[0]
    for item in items[1:]:
        if len(line) + len(item) + 2 > limit:
            lines.append(line + ",")
            line = " " * len(head) + item
        else:
            line += ", " + item
    return "\n".join(lines + [line + tail])


def cap(name):
    return name[0].upper() + name[1:]


OPENERS = ("{", "public:", "protected:", "private:")


class Writer:
    def __init__(self):
        self.lines = []

    def __call__(self, text=""):
        self.lines.extend(text.split("\n") if text else [""])

    def text(self):
        # One blank line at most between blocks, none before a closing brace.
        out = []
        for line in self.lines:
            opened = out and out[-1].endswith(OPENERS) and not out[-1].startswith("namespace")
            if line == "" and (not out or out[-1] == "" or opened):
                continue
            closer = line.startswith((" ", "}")) and line.strip().startswith("}")
            if closer and "namespace" not in line and out and out[-1] == "":
                out.pop()
            out.append(line.rstrip())
        while out and out[-1] == "":
            out.pop()
        return "\n".join(out) + "\n"


class InlineWriter:
    """Writes definitions into the header instead, each function marked inline."""

    def __init__(self, header):
        self.header = header

    def __call__(self, text=""):
        for line in text.split("\n") if text else [""]:
            opens = line and not line[0].isspace() and line != "}" and line.endswith("{")
            self.header(f"inline {line}" if opens else line)


class Emitter:
    def __init__(self, model, header_include):
        self.model = model
        self.ns = model.namespace
        self.header_include = header_include
        # Dir/Name.mox.h: the hand-written classes of the model are declared in Dir/Name.h.
        self.handwritten_header = header_include.removesuffix(".mox.h") + ".h"
        self.h = Writer()
        self.c = Writer()

    # --- types --------------------------------------------------------------------------

    def cxx(self, type_name):
        found = self.model.find(type_name)
        if isinstance(found, EnumDef) and found.owner:
            return found.qualified  # valid inside and outside the owning class
        return MOX_NAMES.sub(r"Mox::\1", type_name)

    def small(self, type_name):
        if type_name in SMALL_TYPES:
            return True
        found = self.model.find(type_name)
        return isinstance(found, EnumDef) or (
            isinstance(found, ValueDef) and found.wrapped in INTEGER_TYPES)

    def param(self, type_name):
        return self.cxx(type_name) if self.small(type_name) else f"const {self.cxx(type_name)}&"

    def qualified(self, name):
        return f"{self.ns}::{name}"

    # --- bounds -------------------------------------------------------------------------

    def bound_text(self, bound):
        return bound.text if bound.literal else f"Expr @{self.model.file_name}:{bound.line}"

    def low_check(self, type_name, bound):
        """False when the type cannot go below the bound (no always-false comparison)."""
        return bound and not (bound.literal and type_name in UNSIGNED_TYPES and
                              int(bound.text, 0) <= 0)

    def high_check(self, type_name, bound):
        return bound and not (bound.literal and type_name in UNSIGNED_TYPES and
                              int(bound.text, 0) >= UNSIGNED_TYPES[type_name])

    def check_name(self, owner, attr_name):
        return f"check{owner}{cap(attr_name)}"

    def emit_check(self, owner, attr_name, type_name, low, high):
        """A file-local check that raises the model's bound message."""
        c = self.c
        c(f"void {self.check_name(owner, attr_name)}({self.param(type_name)} value) {{")
        if self.low_check(type_name, low):
            c(f"  if (value < {low.text}) {{")
            c(f'    throw Mox::RangeException("{owner}::{attr_name} < {self.bound_text(low)} '
              'not allowed");')
            c("  }")
        if self.high_check(type_name, high):
            c(f"  if (value > {high.text}) {{")
            c(f'    throw Mox::RangeException("{owner}::{attr_name} > {self.bound_text(high)} '
              'not allowed");')
            c("  }")
        c("}")
        c()

    def checked(self, member):
        return self.low_check(member.type, member.min) or self.high_check(member.type, member.max)

    def emit_checks(self, owner, members):
        bounded = [m for m in members if self.checked(m)]
        if not bounded:
            return
        self.c("namespace {")
        self.c()
        for m in bounded:
            self.emit_check(owner, m.name, m.type, m.min, m.max)
        self.c("}  // namespace")
        self.c()

    def check_call(self, owner, member, value):
        if self.checked(member):
            return f"{self.check_name(owner, member.name)}({value});"
        return None

    # --- the files ----------------------------------------------------------------------

    def run(self):
        h, c = self.h, self.c
        h("#pragma once")
        h(f"// Generated by moxgen from {self.model.file_name}; edit the model, not this file.")
        h()
        for include in sorted(set(self.model.includes) | {"<Mox/Model.h>"}):
            h(f"#include {include}")
        h()
        h(f"namespace {self.ns} {{")
        h()
        c(f"// Generated by moxgen from {self.model.file_name}; edit the model, not this file.")
        c()
        handwritten = any(getattr(t, "handwritten", False) for t in self.model.types)
        c(f"#include <{self.handwritten_header if handwritten else self.header_include}>")
        c()
        c("#include <ostream>")
        c("#include <utility>")
        c()
        c(f"namespace {self.ns} {{")
        c()
        for t in self.model.types:
            if isinstance(t, EnumDef):
                self.enum(t)
            elif isinstance(t, ValueDef) and t.wrapped:
                self.wrapper(t)
            elif isinstance(t, ValueDef):
                self.value(t)
            else:
                self.entity(t)
        h(f"}}  // namespace {self.ns}")
        c(f"}}  // namespace {self.ns}")
        hashed = [t for t in self.model.types if isinstance(t, ValueDef)]
        if hashed:
            h()
        for t in hashed:
            h("template <>")
            h(f"struct std::hash<{self.qualified(t.name)}> {{")
            h(f"  size_t operator()(const {self.qualified(t.name)}& value) const {{ "
              "return value.hash(); }")
            h("};")
            h()
        return self.h.text(), self.c.text()

    def doc(self, writer, lines, indent=""):
        for line in lines:
            writer(f"{indent}// {line}".rstrip())

    def text_functions(self, name, by_value=False):
        """Declares the free text functions every value and enumeration has."""
        arg = name if by_value else f"const {name}&"
        self.h(f"std::string valueToStrep({arg} value);")
        self.h(f"void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, {name}* value);")
        self.h(f"std::ostream& operator<<(std::ostream& os, {arg} value);")
        self.h("// The attribute-log form (see Mox/AttrLog.h).")
        self.h(f"void attrLogWrite(Mox::AttrLogWriter& out, {arg} value);")
        self.h(f"void attrLogRead(Mox::AttrLogReader& in, {name}* value);")
        self.h()

    def stream_operator(self, parameter, text):
        self.c(f"std::ostream& operator<<(std::ostream& os, {parameter} value) {{")
        self.c(f"  return os << {text};")
        self.c("}")
        self.c()

    def value_reader(self, name, body):
        """The reader of a value and its stream operator: `body` reads from `cursor` into a
        local `parsed`; the caller's iterator and value change only when it succeeds."""
        c = self.c
        c(f"void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, {name}* value) {{")
        c("  Mox::TextIter cursor = it;")
        for line in body:
            c(line)
        c("  it = cursor;")
        c("  *value = std::move(parsed);")
        c("}")
        c()
        self.stream_operator(f"const {name}&", "value.stringValue()")

    # --- enumerations -------------------------------------------------------------------

    def enum(self, e):
        self.enum_declaration(e, "")
        self.enum_functions(e)

    def short_function(self, signature, statement):
        """A one-statement function, on one line when it fits."""
        line = f"{signature} {{ {statement} }}"
        if len(line) <= 100:
            self.c(line)
        else:
            self.c(f"{signature} {{")
            self.c(f"  {statement}")
            self.c("}")

    def enum_declaration(self, e, indent):
        h = self.h
        self.doc(h, e.doc, indent)
        h(f"{indent}enum class {e.name} : {self.cxx(e.base)} {{")
        for entry in e.entries:
            h(f"{indent}  {entry.name} = {entry.value},")
        h(f"{indent}}};")
        h()

    def enum_functions(self, e):
        c = self.c
        name = e.qualified
        self.text_functions(name, by_value=True)
        table = f"k{name.replace('::', '')}Texts"
        c("namespace {")
        c()
        c(f"constexpr Mox::EnumText<{name}> {table}[] = {{")
        for entry in e.entries:
            c(f'    {{{name}::{entry.name}, "{entry.text}"}},')
        c("};")
        c()
        c("}  // namespace")
        c()
        self.short_function(f"std::string valueToStrep({name} value)",
                            f"return Mox::enumToStrep(value, {table});")
        c()
        c(f"void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, {name}* value) {{")
        c(f'  Mox::enumFromSequence(it, end, value, {table}, "Invalid {e.name}");')
        c("}")
        c()
        self.stream_operator(name, "valueToStrep(value)")
        self.short_function(f"void attrLogWrite(Mox::AttrLogWriter& out, {name} value)",
                            f"out.integer(static_cast<{self.cxx(e.base)}>(value));")
        c()
        c(f"void attrLogRead(Mox::AttrLogReader& in, {name}* value) {{")
        c(f'  Mox::enumFromLog(in, value, {table}, "Invalid {e.name}");')
        c("}")
        c()

    # --- wrapper values -----------------------------------------------------------------

    def wrapper_message(self, v):
        if v.max_bytes:
            return f"{v.name}::bytes > {self.bound_text(v.max_bytes)} not allowed"
        if v.min and v.max:
            return f"{v.name}::value < {v.name}::min or > {v.name}::max not allowed"
        if v.min:
            return f"{v.name}::value < {self.bound_text(v.min)} not allowed"
        return f"{v.name}::value > {self.bound_text(v.max)} not allowed"

    def wrapper(self, v):
        h = self.h
        t = self.cxx(v.wrapped)
        p = self.param(v.wrapped)
        bounded = v.min or v.max or v.max_bytes
        self.doc(h, v.doc)
        h(f"class {v.name} {{")
        h(" public:")
        for nested in v.enums:
            self.enum_declaration(nested, "  ")
        if v.min:
            h(f"  static constexpr {t} min() {{ return {v.min.text}; }}")
        if v.max:
            h(f"  static constexpr {t} max() {{ return {v.max.text}; }}")
        if v.max_bytes:
            h(f"  static constexpr size_t maxBytes() {{ return {v.max_bytes.text}; }}")
        h()
        h(f"  {v.name}() = default;")
        if bounded:
            h("  // Out of bounds raises Mox::RangeException")
            h(f'  // "{self.wrapper_message(v)}".')
            h(f"  explicit {v.name}({p} value);")
        else:
            h(f"  explicit {v.name}({p} value) : value_(value) {{}}")
        h()
        h(f"  {p} value() const {{ return value_; }}")
        if bounded:
            h(f"  void valueIs({p} value);")
        else:
            h(f"  void valueIs({p} value) {{ value_ = value; }}")
        if v.wrapped in STRING_TYPES:
            h("  size_t bytes() const { return value_.size(); }")
        for b in v.bits:
            self.doc(h, b.doc, "  ")
            h(f"  bool {b.name}() const {{ return (value_ >> {b.bit}) & 1u; }}")
            h(f"  void {b.name}Is(bool {b.name}) {{")
            h(f"    value_ = static_cast<{t}>({b.name} ? value_ | (1u << {b.bit}) "
              f": value_ & ~(1u << {b.bit}));")
            h("  }")
        for method in v.methods:
            h(f"  {method}")
        h()
        if v.bits:
            h(f"  // The text form Value('{self.qualified(v.name)}', ** {{...}}) of the flags, and")
            h("  // back; a text that is no value raises Mox::RangeException and changes nothing.")
        else:
            h("  // The bare value as text, and back; a text that is no value raises")
            h("  // Mox::RangeException and changes nothing.")
        h("  std::string stringValue() const;")
        h("  void stringValueIs(std::string_view text);")
        h("  Mox::U32 hash() const { return Mox::attrHash(value_); }")
        h()
        h(f"  friend bool operator==(const {v.name}&, const {v.name}&) = default;")
        h(f"  friend auto operator<=>(const {v.name}&, const {v.name}&) = default;")
        h()
        h(" private:")
        init = f" = {v.min.text}" if v.min else "{}"
        h(f"  {t} value_{init};")
        h("};")
        h()
        self.text_functions(v.name)
        for nested in v.enums:
            self.enum_functions(nested)

        if bounded:
            self.define_wrapper_bounds(v)
        self.wrapper_text(v)

    def define_wrapper_bounds(self, v):
        c = self.c
        p = self.param(v.wrapped)
        c(f"{v.name}::{v.name}({p} value) {{ valueIs(value); }}")
        c()
        c(f"void {v.name}::valueIs({p} value) {{")
        conditions = []
        if v.max_bytes:
            conditions.append(f"value.size() > {v.max_bytes.text}")
        if self.low_check(v.wrapped, v.min):
            conditions.append(f"value < {v.min.text}")
        if self.high_check(v.wrapped, v.max):
            conditions.append(f"value > {v.max.text}")
        if conditions:
            c(f"  if ({' || '.join(conditions)}) {{")
            c(f'    throw Mox::RangeException("{self.wrapper_message(v)}");')
            c("  }")
        c("  value_ = value;")
        c("}")
        c()

    def flags_text(self, v):
        """Integer values with named flags print and parse as composites of their flags."""
        self.wrapper_log(v)
        c = self.c
        c(f"std::string {v.name}::stringValue() const {{ return valueToStrep(*this); }}")
        c()
        c(f"void {v.name}::stringValueIs(std::string_view text) {{")
        c(f'  *this = Mox::valueFromText<{v.name}>(text, "Invalid {v.name}");')
        c("}")
        c()
        c(f"std::string valueToStrep(const {v.name}& value) {{")
        c(f'  return Mox::ValueText("{self.qualified(v.name)}")')
        for b in v.bits:
            c(f'      .attr("{b.name}", value.{b.name}())')
        c("      .str();")
        c("}")
        c()
        body = [f"  {v.name} parsed;",
                f'  Mox::ValueParser parser(cursor, end, "{self.qualified(v.name)}");']
        for b in v.bits:
            body += [f"  bool {b.name} = false;",
                     f'  parser.attr("{b.name}", &{b.name});',
                     f"  parsed.{b.name}Is({b.name});"]
        body.append("  parser.finish();")
        self.value_reader(v.name, body)

    def wrapper_text(self, v):
        c = self.c
        t = self.cxx(v.wrapped)
        # An enumeration's text is found beside it; the runtime prints the rest.
        printer = "" if isinstance(self.model.find(v.wrapped), EnumDef) else "Mox::"
        if v.bits:
            self.flags_text(v)
            return
        if v.wrapped in STRING_TYPES:
            c(f"std::string {v.name}::stringValue() const {{ return value_; }}")
            c()
            c(f"void {v.name}::stringValueIs(std::string_view text) {{ valueIs({t}(text)); }}")
        else:
            self.short_function(f"std::string {v.name}::stringValue() const",
                                f"return {printer}valueToStrep(value_);")
            c()
            c(f"void {v.name}::stringValueIs(std::string_view text) {{")
            c(f'  valueIs(Mox::valueFromText<{t}>(text, "Invalid {v.name}"));')
            c("}")
        c()
        c(f"std::string valueToStrep(const {v.name}& value) {{")
        c(f"  return {printer}valueToStrep(value.value());")
        c("}")
        c()
        self.value_reader(v.name, [f"  {t} raw{{}};",
                                   "  Mox::deserializeAttr(cursor, end, &raw);",
                                   f"  {v.name} parsed(raw);"])
        self.wrapper_log(v)

    def wrapper_log(self, v):
        c = self.c
        self.short_function(f"void attrLogWrite(Mox::AttrLogWriter& out, const {v.name}& value)",
                            "attrLogWrite(out, value.value());")
        c()
        c(f"void attrLogRead(Mox::AttrLogReader& in, {v.name}* value) {{")
        c(f"  value->valueIs(Mox::attrLogGet<{self.cxx(v.wrapped)}>(in));")
        c("}")
        c()

    # --- composite values ---------------------------------------------------------------

    def value(self, v):
        h, c = self.h, self.c
        attrs = v.attrs
        self.doc(h, v.doc)
        h(f"class {v.name} {{")
        h(" public:")
        for nested in v.enums:
            self.enum_declaration(nested, "  ")
        h(f"  {v.name}() = default;")
        # Without bounds to check the constructor is defined here, so that a value built
        # from fields (as the attribute log reads one) stays in registers.
        checked = any(self.checked(a) for a in attrs)
        if attrs:
            explicit = "explicit " if len(attrs) == 1 else ""
            args = [f"{self.param(a.type)} {a.name}" for a in attrs]
            if checked:
                h(fill(f"  {explicit}{v.name}(", args, ");"))
            else:
                h(fill(f"  {explicit}{v.name}(", args, ")"))
                h(fill("      : ", [f"{a.name}_({a.name})" for a in attrs], " {}"))
        h()
        for a in attrs:
            self.doc(h, a.doc, "  ")
            h(f"  {self.param(a.type)} {a.name}() const {{ return {a.name}_; }}")
            if a.min or a.max:
                h(f"  void {a.name}Is({self.param(a.type)} {a.name});")
            else:
                h(f"  void {a.name}Is({self.param(a.type)} {a.name}) {{ {a.name}_ = {a.name}; }}")
        for method in v.methods:
            h(f"  {method}")
        h()
        h(f"  // The text form Value('{self.qualified(v.name)}', ** {{...}}), and back; a text")
        h("  // that is no value raises Mox::RangeException and changes nothing.")
        h("  std::string stringValue() const;")
        h("  void stringValueIs(std::string_view text);")
        h("  Mox::U32 hash() const;")
        h()
        h(f"  friend bool operator==(const {v.name}&, const {v.name}&) = default;")
        h(f"  // Lexicographic, attribute by attribute in model order.")
        h(f"  friend auto operator<=>(const {v.name}& a, const {v.name}& b) {{")
        if attrs:
            mine = ", ".join(f"a.{a.name}_" for a in attrs)
            theirs = ", ".join(f"b.{a.name}_" for a in attrs)
            line = f"    return std::tie({mine}) <=> std::tie({theirs});"
            if len(line) <= 100:
                h(line)
            else:
                h(f"    return std::tie({mine}) <=>")
                h(f"           std::tie({theirs});")
        else:
            h("    return std::tie() <=> std::tie();")
        h("  }")
        h()
        h(" private:")
        for a in attrs:
            init = f" = {a.default}" if a.default else "{}"
            h(f"  {self.cxx(a.type)} {a.name}_{init};")
        h("};")
        h()
        self.text_functions(v.name)
        for nested in v.enums:
            self.enum_functions(nested)

        self.emit_checks(v.name, attrs)
        if checked:
            args = [f"{self.param(a.type)} {a.name}" for a in attrs]
            inits = [f"{a.name}_({a.name})" for a in attrs]
            c(fill(f"{v.name}::{v.name}(", args, ")"))
            c(fill("    : ", inits, " {"))
            for a in attrs:
                call = self.check_call(v.name, a, a.name)
                if call:
                    c(f"  {call}")
            c("}")
            c()
        for a in attrs:
            call = self.check_call(v.name, a, a.name)
            if call:
                c(f"void {v.name}::{a.name}Is({self.param(a.type)} {a.name}) {{")
                c(f"  {call}")
                c(f"  {a.name}_ = {a.name};")
                c("}")
                c()
        c(f"std::string {v.name}::stringValue() const {{ return valueToStrep(*this); }}")
        c()
        c(f"void {v.name}::stringValueIs(std::string_view text) {{")
        c(f'  *this = Mox::valueFromText<{v.name}>(text, "Invalid {v.name}");')
        c("}")
        c()
        c(f"Mox::U32 {v.name}::hash() const {{")
        c("  Mox::U32 hash = 0;")
        for a in attrs:
            c(f"  hash = Mox::hashCombine(hash, Mox::attrHash({a.name}_));")
        c("  return hash;")
        c("}")
        c()
        c(f"std::string valueToStrep(const {v.name}& value) {{")
        c(f'  return Mox::ValueText("{self.qualified(v.name)}")')
        for a in attrs:
            c(f'      .attr("{a.name}", value.{a.name}())')
        c("      .str();")
        c("}")
        c()
        body = [f"  {self.cxx(a.type)} {a.name}{{}};" for a in attrs]
        body.append(f'  Mox::ValueParser parser(cursor, end, "{self.qualified(v.name)}");')
        body += [f'  parser.attr("{a.name}", &{a.name});' for a in attrs]
        body.append("  parser.finish();")
        names = [f"std::move({a.name})" for a in attrs]
        body.append(fill(f"  {v.name} parsed(", names, ");") if attrs else f"  {v.name} parsed;")
        self.value_reader(v.name, body)
        self.value_log(v, names)

    def value_log(self, v, names):
        """Attributes in model order; reading builds the value through its constructor, so
        that bounds are checked and a failure changes nothing."""
        c = self.c
        attrs = v.attrs
        out = "out" if attrs else "/*out*/"
        c(f"void attrLogWrite(Mox::AttrLogWriter& {out}, const {v.name}& value) {{")
        for a in attrs:
            c(f"  attrLogWrite(out, value.{a.name}());")
        c("}")
        c()
        c(f"void attrLogRead(Mox::AttrLogReader& {'in' if attrs else '/*in*/'}, "
          f"{v.name}* value) {{")
        for a in attrs:
            c(f"  const auto {a.name} = Mox::attrLogGet<{self.cxx(a.type)}>(in);")
        if any(self.checked(a) for a in attrs):
            c(fill(f"  *value = {v.name}(", [a.name for a in attrs], ");"))
        else:
            # Field by field: copying a whole value built here would load, in one wide
            # read, the narrow stores that just built it, which stalls.
            for a in attrs:
                c(f"  value->{a.name}Is({a.name});")
        c("}")
        c()

    # --- entities -----------------------------------------------------------------------

    def base_arguments(self, e):
        if e.base_args is not None:
            return e.base_args, {"name"}
        if e.base == "Mox::Entity":
            if any(a.name == "name" for a in e.args):
                return "name", {"name"}
            return f'"{e.name}"', set()
        base = self.model.find(e.base)
        names = [a.name for a in base.args]
        return ", ".join(names), set(names)

    def entity(self, e):
        h, c = self.h, self.c
        base_args, passed = self.base_arguments(e)
        stored_args = [a for a in e.args if a.name not in passed]
        ctor_args = ", ".join(f"{self.param(a.type)} {a.name}" for a in e.args)
        handlers = [a.handler for a in e.attrs if a.handler]
        if e.handwritten:
            h(f"class {e.name};")
            h()
        self.doc(h, e.doc)
        if e.handwritten:
            h(f"// The data of {e.name}; {e.name} itself, with its behaviour, is written by hand "
              f"in\n// <{self.handwritten_header}>.")
        h(f"class {e.cls} : public {e.base} {{")
        h(" public:")
        h("  class Notifiee;")
        h()
        for nested in e.enums:
            self.enum_declaration(nested, "  ")
        if any(a.kind == "queue" for a in e.attrs):
            h()
            for a in e.attrs:
                if a.kind == "queue":
                    h(f"  using {cap(a.name)}Metadata = Mox::QueueMetadata;")
        h()
        for a in stored_args:
            h(f"  {self.param(a.type)} {a.name}() const {{ return {a.name}_; }}")
        if stored_args:
            h()
        for a in e.attrs:
            self.doc(h, a.doc, "  ")
            getattr(self, f"declare_{a.kind}")(a)
            h()
        if self.streamed(e):
            h("  // How the attribute log streams this class (see Mox/AttrLogClass.h).")
            h("  static const Mox::AttrLogClass& attrLog();")
            h("  const Mox::AttrLogClass* attrLogClass() const noexcept override;")
            h()
        elif e.nolog and e.base != "Mox::Entity":
            h("  // Never streamed by the attribute log.")
            h("  const Mox::AttrLogClass* attrLogClass() const noexcept override { return nullptr; }")
            h()
        h(" protected:")
        explicit = "explicit " if len(e.args) == 1 else ""
        h(f"  {explicit}{e.cls}({ctor_args});")
        if handlers:
            h()
            h(f"  // Run after a real change of their attribute, before the hooks; {e.name} "
              "defines them.")
            for handler in handlers:
                h(f"  virtual void {handler}() = 0;")
        h()
        h(" private:")
        if e.factory and not e.handwritten:
            h(f"  friend Mox::Ptr<{e.name}> {e.factory}({ctor_args});")
            h()
        for a in stored_args:
            h(f"  const {self.cxx(a.type)} {a.name}_;")
        for a in e.attrs:
            h(f"  {self.storage(a)};")
            if a.kind == "queue":
                h(f"  {cap(a.name)}Metadata {a.name}Metadata_;")
        if self.streamed(e):
            self.declare_attr_log_members(e)
        h("};")
        h()
        self.notifiee(e)
        self.define_attrs(e, [a for a in e.attrs if a.inline], InlineWriter(h))
        if e.factory:
            if e.handwritten:
                h(f"// Makes a {e.name}; {e.name} befriends it.")
            h(f"Mox::Ptr<{e.name}> {e.factory}({ctor_args});")
            h()
        for nested in e.enums:
            self.enum_functions(nested)

        self.emit_checks(e.name, e.args + e.attrs)
        inits = [f"{e.base}({base_args})"] + [f"{a.name}_({a.name})" for a in stored_args]
        calls = [self.check_call(e.name, a, a.name) for a in e.args]
        calls = [call for call in calls if call]
        # Members every instance has from the start.
        calls += [f"new{cap(a.name)}({self.cxx(a.key)}({key}));"
                  for a in e.attrs for key in a.initial]
        signature = f"{e.cls}::{e.cls}({ctor_args})"
        initializers = f": {', '.join(inits)} {{" + ("" if calls else "}")
        if len(signature) + len(initializers) < 100:
            c(f"{signature} {initializers}")
        else:
            c(signature)
            c(f"    {initializers}")
        for call in calls:
            c(f"  {call}")
        if calls:
            c("}")
        c()
        if e.handwritten:
            self.define_notifier(e)
        self.define_attrs(e, [a for a in e.attrs if not a.inline], c)
        if e.factory:
            names = ", ".join(a.name for a in e.args)
            c(f"Mox::Ptr<{e.name}> {e.factory}({ctor_args}) {{")
            c(f"  return Mox::Ptr<{e.name}>(new {e.name}({names}));")
            c("}")
            c()
        if self.streamed(e):
            self.attr_log(e)

    # --- the attribute log of an entity -------------------------------------------------

    def streamed(self, e):
        """Entities are streamed unless marked nolog; hand-written ones hold behaviour (and
        descriptors) that no mirror can have, and a base from another model is unknown here."""
        if e.nolog or e.handwritten:
            return False
        if e.base == "Mox::Entity":
            return True
        base = self.model.find(e.base)
        return base is not None and self.streamed(base)

    def last_set(self, e, a):
        """Maps of streamed entities remember the entry set last, so that the attribute
        log reads a change's value from it instead of looking its key up again."""
        return a.kind == "map" and self.streamed(e)

    def declare_attr_log_members(self, e):
        h = self.h
        h()
        h("  // How the attribute log streams this class, and its watch on one instance.")
        h("  class AttrLog;")
        h("  class AttrLogWatch;")
        for a in e.attrs:
            if self.last_set(e, a):
                h(f"  // The entry set last, until an entry is deleted (then nullptr).")
                h(f"  const std::pair<const {self.cxx(a.key)}, {self.cxx(a.type)}>* "
                  f"{a.name}LastSet_ = nullptr;")

    def log_kind(self, a):
        return "map" if a.kind == "map" else a.kind

    def loggable(self, a):
        types = [self.cxx(a.type)] if a.kind != "children" else []
        if a.kind != "scalar":
            types.append(self.cxx(a.key))
        return " && ".join(f"Mox::AttrLoggable<{t}>" for t in types)

    def type_text(self, type_name):
        """A type as the attribute log's schema names it: by its qualified C++ name."""
        found = self.model.find(type_name)
        if found is None:
            return self.cxx(type_name)
        return self.qualified(found.qualified if isinstance(found, EnumDef) else found.name)

    def log_row(self, a):
        """One attribute's row of an AttrLogClass table."""
        key = self.type_text(a.key) if a.key else ""
        row = [f'"{a.name}"', f"Mox::AttrLogKind::{self.log_kind(a)}", self.loggable(a),
               f'"{self.type_text(a.type)}"', f'"{key}"']
        if a.kind == "children":
            child = self.model.find(a.type)
            if child is None:  # another model's entity: only the compiler knows if it streams
                row.append(f"Mox::attrLogClassOf<{self.cxx(a.type)}>()")
            elif self.streamed(child):
                row.append(f"&{a.type}::attrLog")
        return "{" + ", ".join(row) + "}"

    def attr_log(self, e):
        c = self.c
        n = e.name
        watch, cls = f"{n}::AttrLogWatch", f"{n}::AttrLog"
        base = "nullptr" if e.base == "Mox::Entity" else f"&{e.base}::attrLog()"
        c(f"// Writes each change of one {n} to an attribute-log sink.")
        c(f"class {watch} final : public {n}::Notifiee {{")
        c(" public:")
        c(f"  AttrLogWatch({n}* entity, Mox::U32 handle, Mox::U16 first, Mox::AttrLogSink& sink)")
        c("      : handle_(handle), first_(first), sink_(sink) {")
        c("    notifierIs(entity);")
        c("  }")
        c()
        for i, a in enumerate(e.attrs):
            getter = f"notifier()->{a.name}"
            if a.kind == "scalar":
                c(f"  void on{cap(a.name)}() override {{ sink_.scalar(handle_, id({i}), {getter}()); }}")
            else:
                call = "child" if a.kind == "children" else "entry"
                last = f", {getter}LastSet_" if self.last_set(e, a) else ""
                c(f"  void on{cap(a.name)}({self.param(a.key)} key) override {{")
                c(f"    sink_.{call}(handle_, id({i}), {getter}Coll(), key{last});")
                c("  }")
        c()
        c(" private:")
        c("  Mox::U16 id(Mox::U16 local) const { return static_cast<Mox::U16>(first_ + local); }")
        c()
        # An entity without attributes of its own writes nothing (clang warns of the fields).
        unused = "" if e.attrs else "[[maybe_unused]] "
        c(f"  {unused}const Mox::U32 handle_;")
        c("  const Mox::U16 first_;")
        c(f"  {unused}Mox::AttrLogSink& sink_;")
        c("};")
        c()
        c(f"class {cls} final : public Mox::AttrLogClass {{")
        c(" public:")
        rows = [self.log_row(a) for a in e.attrs]
        c(f'  AttrLog()')
        c(f'      : AttrLogClass("{self.qualified(n)}", {base},')
        c(fill("                     {", rows, "}) {}"))
        if e.factory and [(a.name, a.type) for a in e.args] in ([("name", "Name")],
                                                              [("name", "Mox::Name")]):
            c()
            c("  Mox::Ptr<Mox::Entity> make(const Mox::Name& name) const override {")
            c(f"    return {e.factory}(name);")
            c("  }")
        c()
        c(" protected:")
        c("  // Parameters and `e` go unused in a class without attributes of some kind.")
        c("  void snapshotOwn(const Mox::Entity& entity, [[maybe_unused]] Mox::U32 handle,")
        c("                   [[maybe_unused]] Mox::U16 first,")
        c("                   [[maybe_unused]] Mox::AttrLogSink& sink) const override {")
        c(f"    [[maybe_unused]] const auto& e = static_cast<const {n}&>(entity);")
        for i, a in enumerate(e.attrs):
            if a.kind == "scalar":
                c(f"    sink.scalar(handle, first + {i}, e.{a.name}());")
            else:
                call = "children" if a.kind == "children" else "entries"
                c(f"    sink.{call}<{self.cxx(a.key)}>(handle, first + {i}, e.{a.name}Coll());")
        c("  }")
        c()
        c("  void emitOwn(const Mox::Entity& entity, [[maybe_unused]] Mox::U32 handle, Mox::U16 first,")
        c("               Mox::U16 local, [[maybe_unused]] Mox::AttrLogReader& key,")
        c("               [[maybe_unused]] Mox::AttrLogSink& sink) const override {")
        c(f"    [[maybe_unused]] const auto& e = static_cast<const {n}&>(entity);")
        c("    [[maybe_unused]] const Mox::U16 id = static_cast<Mox::U16>(first + local);")
        c("    switch (local) {")
        for i, a in enumerate(e.attrs):
            if a.kind == "scalar":
                c(f"      case {i}: return sink.scalar(handle, id, e.{a.name}());")
            else:
                call = "child" if a.kind == "children" else "entry"
                c(f"      case {i}:")
                c(f"        return Mox::attrLogKeyed<{self.cxx(a.key)}>(")
                c(f"            key, [&](const auto& k) {{ sink.{call}(handle, id, e.{a.name}Coll(), k); }});")
        c("    }")
        c("  }")
        c()
        c("  void applyOwn(Mox::Entity& entity, Mox::U16 local, [[maybe_unused]] Mox::AttrLogOp op,")
        c("                [[maybe_unused]] Mox::AttrLogReader& key,")
        c("                [[maybe_unused]] Mox::AttrLogReader& value,")
        c("                [[maybe_unused]] Mox::AttrLogMirror& mirror) const override {")
        c(f"    [[maybe_unused]] auto& e = static_cast<{n}&>(entity);")
        c("    switch (local) {")
        for i, a in enumerate(e.attrs):
            c(f"      case {i}:")
            t, k = self.cxx(a.type), self.cxx(a.key) if a.key else None
            if a.kind == "scalar":
                c(f"        return Mox::attrLogApplyScalar<{t}>(")
                c(f"            op, value, [&](const auto& v) {{ e.{a.name}Is(v); }});")
            elif a.kind == "children":
                c(f"        return Mox::attrLogApplyChild<{k}>(")
                c(f"            op, key, value, mirror, [&](const auto& k) {{ return e.{a.name}(k); }},")
                c(f"            [&](const auto& k) {{ return e.new{cap(a.name)}(k); }},")
                c(f"            [&](const auto& k) {{ e.{a.name}Del(k); }});")
            else:
                # A value that carries its own key is set by the value alone.
                params, args = ("const auto&, const auto& v", "v") if a.key_member else (
                    "const auto& k, const auto& v", "k, v")
                c(f"        return Mox::attrLogApplyEntry<{k}, {t}>(")
                c(f"            op, key, value, [&]({params}) {{ e.{a.name}Is({args}); }},")
                c(f"            [&](const auto& k) {{ e.{a.name}Del(k); }});")
        c("    }")
        c("  }")
        c()
        c("  void forEachEntryOwn(const Mox::Entity& entity, Mox::U16 local,")
        c("                       [[maybe_unused]] const EntryFn& fn) const override {")
        c(f"    [[maybe_unused]] const auto& e = static_cast<const {n}&>(entity);")
        c("    switch (local) {")
        for i, a in enumerate(e.attrs):
            if a.kind != "scalar":
                c(f"      case {i}: return Mox::attrLogEntries<{self.cxx(a.key)}>(e.{a.name}Coll(), fn);")
        c("    }")
        c("  }")
        c()
        c("  std::unique_ptr<Mox::Entity::NotifieeBase> watchOwn(Mox::Entity& entity, Mox::U32 handle,")
        c("                                                      Mox::U16 first,")
        c("                                                      Mox::AttrLogSink& sink) const override {")
        c(f"    return std::make_unique<AttrLogWatch>(static_cast<{n}*>(&entity), handle, first, sink);")
        c("  }")
        c("};")
        c()
        c(f"const Mox::AttrLogClass& {n}::attrLog() {{")
        c("  static const AttrLog cls;")
        c("  return cls;")
        c("}")
        c()
        c(f"const Mox::AttrLogClass* {n}::attrLogClass() const noexcept {{ return &attrLog(); }}")
        c()
        c(f"[[maybe_unused]] static const bool k{n}AttrLogRegistered =")
        c(f"    Mox::attrLogClassRegister({n}::attrLog());")
        c()

    def define_attrs(self, e, attrs, writer):
        """The accessors of `attrs`, written by `writer` (the source, or the header for
        attributes marked inline, so that calls bound at compile time can inline them)."""
        source = self.c
        self.c = writer
        try:
            for a in attrs:
                getattr(self, f"define_{a.kind}")(e, a)
        finally:
            self.c = source

    def storage(self, a):
        t = self.cxx(a.type)
        if a.kind == "scalar":
            init = f" = {a.default}" if a.default else "{}"
            return f"{t} {a.name}_{init}"
        if a.kind == "array":
            return f"std::vector<{t}> {a.name}_"
        if a.kind == "children":
            return f"std::map<{self.cxx(a.key)}, Mox::Ptr<{t}>> {a.name}_"
        if a.kind == "queue":
            return f"Mox::QueueEntries<{t}> {a.name}_"
        return f"std::map<{self.cxx(a.key)}, {t}> {a.name}_"

    def notifiee(self, e):
        h = self.h
        base = ("Mox::Entity::NotifieeBase" if e.base == "Mox::Entity"
                else f"{e.base}::Notifiee")
        h(f"// Watches one {e.name}; each hook runs after a real change of its attribute.")
        h(f"class {e.cls}::Notifiee : public {base} {{")
        h(" public:")
        h(f"  // Deeper than the base's: {e.name} hooks reach only notifiees attached by notifierIs.")
        h(f"  static constexpr Mox::U8 kLevel = {base}::kLevel + 1;")
        h()
        if e.handwritten:  # the class is not complete here: the source defines these
            h(f"  {e.name}* notifier() const;")
        else:
            h(f"  {e.name}* notifier() const {{")
            h(f"    return {self.notifier_cast(e)};")
            h("  }")
        h("  // Starts watching `notifier` (nullptr: none), leaving the one watched before.")
        if e.handwritten:
            h(f"  void notifierIs({e.name}* notifier);")
        else:
            h(f"  void notifierIs({e.name}* notifier) {{ notifierBaseIs(notifier, kLevel); }}")
        h()
        for a in e.attrs:
            key = "" if a.kind == "scalar" else self.param(a.key)
            h(f"  virtual void on{cap(a.name)}({key}) {{}}")
        h()
        h(" protected:")
        h("  Notifiee() = default;")
        h("};")
        h()

    def notifier_cast(self, e):
        return f"static_cast<{e.name}*>(const_cast<Mox::Entity*>(notifierBase()))"

    def define_notifier(self, e):
        c = self.c
        c(f"{e.name}* {e.cls}::Notifiee::notifier() const {{")
        c(f"  return {self.notifier_cast(e)};")
        c("}")
        c()
        self.short_function(f"void {e.cls}::Notifiee::notifierIs({e.name}* notifier)",
                            "notifierBaseIs(notifier, kLevel);")
        c()

    # Each attribute kind has a declare_ (header) and a define_ (source) writer.

    def mutator(self, a):
        return "virtual " if a.virtual else ""

    def changed(self, a):
        """What a scalar setter runs after a real change: the handler, then the hooks."""
        call = [f"{a.handler}();"] if a.handler else []
        return call + [self.notify(a)]

    def notify(self, a, key=None):
        arg = "" if key is None else key
        capture = "" if key is None else "&"
        return (f"notify<Notifiee>([{capture}](Notifiee& notifiee) "
                f"{{ notifiee.on{cap(a.name)}({arg}); }});")

    def declare_scalar(self, a):
        h = self.h
        p = self.param(a.type)
        v = self.mutator(a)
        h(f"  {p} {a.name}() const {{ return {a.name}_; }}")
        h(f"  {v}void {a.name}Is({p} {a.name});")
        if a.counter:
            h(f"  {v}void {a.name}Inc({p} delta = 1);")
        h(f"  // Back to the default value.")
        h(f"  {v}void {a.name}Del();")

    def define_scalar(self, e, a):
        c = self.c
        p = self.param(a.type)
        t = self.cxx(a.type)
        check = self.check_call(e.name, a, a.name)
        c(f"void {e.cls}::{a.name}Is({p} {a.name}) {{")
        if check:
            c(f"  {check}")
        c(f"  if ({a.name}_ == {a.name}) return;")
        c(f"  {a.name}_ = {a.name};")
        for line in self.changed(a):
            c(f"  {line}")
        c("}")
        c()
        if a.counter:
            c(f"void {e.cls}::{a.name}Inc({p} delta) {{")
            c("  if (delta == 0) return;")
            check = self.check_call(e.name, a, f"{t}({a.name}_ + delta)")
            if check:
                c(f"  {check}")
            c(f"  {a.name}_ += delta;")
            for line in self.changed(a):
                c(f"  {line}")
            c("}")
            c()
        default = f"{t}({a.default})" if a.default else f"{t}()"
        c(f"void {e.cls}::{a.name}Del() {{")
        c(f"  if ({a.name}_ == {default}) return;")
        c(f"  {a.name}_ = {default};")
        for line in self.changed(a):
            c(f"  {line}")
        c("}")
        c()

    def is_pointer(self, a):
        return a.type.startswith(("Mox::Ptr<", "Ptr<"))

    def key_expr(self, a, value):
        arrow = "->" if self.is_pointer(a) else "."
        return f"{value}{arrow}{a.key_member}()"

    def declare_map(self, a):
        h = self.h
        t, k = self.cxx(a.type), self.cxx(a.key)
        pv, pk = self.param(a.type), self.param(a.key)
        v = self.mutator(a)
        n = cap(a.name)
        if a.key_member:
            key_args = f"{pv} value"
        else:
            key_args = f"{pk} key, {pv} value"
        h(f"  // The entry for `key`, or the default value when there is none.")
        h(f"  {t} {a.name}({pk} key) const;")
        h(f"  const std::map<{k}, {t}>& {a.name}Coll() const {{ return {a.name}_; }}")
        h(f"  size_t {a.name}Size() const {{ return {a.name}_.size(); }}")
        h(f"  // Adds the entry unless its key is present; returns the entry the key now has.")
        h(f"  {v}{t} new{n}({key_args});")
        h(f"  // Adds or replaces the entry.")
        h(f"  {v}void {a.name}Is({key_args});")
        h(f"  {v}void {a.name}Del({pk} key);")
        h(f"  {v}void {a.name}DelAll();")
        h(f"  // Runs the on{n}(key) hooks without a change.")
        h(f"  {v}void {a.name}Notify({pk} key) const;")

    def define_map(self, e, a):
        c = self.c
        t, k = self.cxx(a.type), self.cxx(a.key)
        pv, pk = self.param(a.type), self.param(a.key)
        n = cap(a.name)
        m = f"{a.name}_"
        c(f"{t} {e.cls}::{a.name}({pk} key) const {{")
        c(f"  auto entry = {m}.find(key);")
        c(f"  return entry == {m}.end() ? {t}() : entry->second;")
        c("}")
        c()
        if a.key_member:
            args = f"{pv} value"
            key_line = f"  const {k} key = {self.key_expr(a, 'value')};"
            if self.is_pointer(a):  # an entry without an object has no key
                key_line = f"  MOX_ASSERT(value);\n{key_line}"
        else:
            args = f"{pk} key, {pv} value"
            key_line = None
        c(f"{t} {e.cls}::new{n}({args}) {{")
        if key_line:
            c(key_line)
        c(f"  auto [entry, added] = {m}.try_emplace(key, value);")
        c("  if (!added) return entry->second;")
        if self.last_set(e, a):
            c(f"  {a.name}LastSet_ = &*entry;")
        c(f"  {self.notify(a, 'key')}")
        c("  return value;")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}Is({args}) {{")
        if key_line:
            c(key_line)
        c(f"  auto [entry, added] = {m}.try_emplace(key, value);")
        c("  if (!added) {")
        c("    if (entry->second == value) return;")
        c("    entry->second = value;")
        c("  }")
        if self.last_set(e, a):
            c(f"  {a.name}LastSet_ = &*entry;")
        c(f"  {self.notify(a, 'key')}")
        c("}")
        c()
        self.define_del_all(e, a)
        self.define_notify(e, a, f"{pk} key", "key")

    def define_del_all(self, e, a):
        """Del and DelAll of the map-backed kinds (maps and children)."""
        c = self.c
        m = f"{a.name}_"
        pk = self.param(a.key)
        c(f"void {e.cls}::{a.name}Del({pk} key) {{")
        c(f"  auto entry = {m}.find(key);")
        c(f"  if (entry == {m}.end()) return;")
        if self.last_set(e, a):
            c(f"  {a.name}LastSet_ = nullptr;")
        c(f"  auto removed = {m}.extract(entry);")
        c(f"  {self.notify(a, 'removed.key()')}")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}DelAll() {{")
        if self.last_set(e, a):
            c(f"  {a.name}LastSet_ = nullptr;")
        c(f"  while (!{m}.empty()) {{")
        c(f"    auto removed = {m}.extract({m}.begin());")
        c(f"    {self.notify(a, 'removed.key()')}")
        c("  }")
        c("}")
        c()

    def declare_children(self, a):
        h = self.h
        t, k = self.cxx(a.type), self.cxx(a.key)
        pk = self.param(a.key)
        v = self.mutator(a)
        n = cap(a.name)
        h(f"  // Child entities, one per key, made by {a.factory}(key).")
        h(f"  Mox::Ptr<{t}> {a.name}({pk} key) const;")
        h(f"  const std::map<{k}, Mox::Ptr<{t}>>& {a.name}Coll() const {{ return {a.name}_; }}")
        h(f"  size_t {a.name}Size() const {{ return {a.name}_.size(); }}")
        h(f"  // Makes the child unless the key has one; returns the key's child.")
        h(f"  {v}Mox::Ptr<{t}> new{n}({pk} key);")
        h(f"  // Puts `child` (not null) under the key, replacing the key's child.")
        h(f"  {v}void {a.name}Is({pk} key, const Mox::Ptr<{t}>& child);")
        h(f"  {v}void {a.name}Del({pk} key);")
        h(f"  {v}void {a.name}DelAll();")
        h(f"  // Runs the on{n}(key) hooks without a change.")
        h(f"  {v}void {a.name}Notify({pk} key) const;")

    def define_children(self, e, a):
        c = self.c
        t = self.cxx(a.type)
        pk = self.param(a.key)
        n = cap(a.name)
        m = f"{a.name}_"
        c(f"Mox::Ptr<{t}> {e.cls}::{a.name}({pk} key) const {{")
        c(f"  auto entry = {m}.find(key);")
        c(f"  return entry == {m}.end() ? nullptr : entry->second;")
        c("}")
        c()
        c(f"Mox::Ptr<{t}> {e.cls}::new{n}({pk} key) {{")
        c(f"  auto entry = {m}.find(key);")
        c(f"  if (entry != {m}.end()) return entry->second;")
        made = "Mox::Name(valueToStrep(key)), key" if a.named else "key"
        c(f"  Mox::Ptr<{t}> child = {a.factory}({made});")
        c(f"  {m}.emplace(key, child);")
        c(f"  {self.notify(a, 'key')}")
        c("  return child;")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}Is({pk} key, const Mox::Ptr<{t}>& child) {{")
        c("  MOX_ASSERT(child);")
        c(f"  Mox::Ptr<{t}>& entry = {m}[key];")
        c("  if (entry == child) return;")
        c("  entry = child;")
        c(f"  {self.notify(a, 'key')}")
        c("}")
        c()
        self.define_del_all(e, a)
        self.define_notify(e, a, f"{pk} key", "key")

    def declare_array(self, a):
        h = self.h
        t = self.cxx(a.type)
        pv, pi = self.param(a.type), self.param(a.key)
        v = self.mutator(a)
        n = cap(a.name)
        h(f"  // The entry at `index`, or the default value past the end. Entries holding the")
        h(f"  // default value count as absent: the array ends at its last other entry.")
        h(f"  {t} {a.name}({pi} index) const;")
        h(f"  const std::vector<{t}>& {a.name}Coll() const {{ return {a.name}_; }}")
        h(f"  size_t {a.name}Size() const {{ return {a.name}_.size(); }}")
        h(f"  {v}void {a.name}Is({pi} index, {pv} value);")
        h(f"  {v}void {a.name}Del({pi} index);")
        h(f"  {v}void {a.name}DelAll();")
        h(f"  // Runs the on{n}(index) hooks without a change.")
        h(f"  {v}void {a.name}Notify({pi} index) const;")

    def define_array(self, e, a):
        c = self.c
        t, i = self.cxx(a.type), self.cxx(a.key)
        pv, pi = self.param(a.type), self.param(a.key)
        m = f"{a.name}_"
        c(f"{t} {e.cls}::{a.name}({pi} index) const {{")
        c("  const size_t position = Mox::indexOf(index);")
        c(f"  return position < {m}.size() ? {t}({m}[position]) : {t}();")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}Is({pi} index, {pv} value) {{")
        c(f"  if ({a.name}(index) == value) return;")
        c("  const size_t position = Mox::indexOf(index);")
        c(f"  if (position >= {m}.size()) {m}.resize(position + 1);")
        c(f"  {m}[position] = value;")
        c(f"  Mox::trimDefaults(&{m});")
        c(f"  {self.notify(a, 'index')}")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}Del({pi} index) {{")
        c("  const size_t position = Mox::indexOf(index);")
        c(f"  if (position >= {m}.size() || {m}[position] == {t}()) return;")
        c(f"  {m}[position] = {t}();")
        c(f"  Mox::trimDefaults(&{m});")
        c(f"  {self.notify(a, 'index')}")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}DelAll() {{")
        c(f"  std::vector<{t}> removed;")
        c(f"  removed.swap({m});")
        c("  for (size_t position = 0; position < removed.size(); ++position) {")
        c(f"    if (removed[position] == {t}()) continue;")
        c(f"    const {i} index = Mox::indexFrom<{i}>(position);")
        c(f"    {self.notify(a, 'index')}")
        c("  }")
        c("}")
        c()
        self.define_notify(e, a, f"{pi} index", "index")

    def declare_queue(self, a):
        h = self.h
        t = self.cxx(a.type)
        pv = self.param(a.type)
        v = self.mutator(a)
        n = cap(a.name)
        h(f"  // A first-in first-out queue keyed by sequence numbers that grow by one per entry.")
        h(f"  {t} {a.name}(Mox::U32 sequence) const;")
        h(f"  // (sequence, entry) pairs, oldest first.")
        h(f"  const Mox::QueueEntries<{t}>& {a.name}Coll() const {{ return {a.name}_; }}")
        h(f"  size_t {a.name}Size() const {{ return {a.name}_.size(); }}")
        h(f"  const {n}Metadata& {a.name}Metadata() const {{ return {a.name}Metadata_; }}")
        h(f"  // Appends the entry and returns its sequence.")
        h(f"  {v}Mox::U32 {a.name}Enq({pv} value);")
        h(f"  // Removes and returns the oldest entry; the default value when empty.")
        h(f"  {v}{t} {a.name}Deq();")
        h(f"  {v}void {a.name}Is(Mox::U32 key, {pv} value);")
        h(f"  {v}void {a.name}Del(Mox::U32 key);")
        h(f"  {v}void {a.name}DelAll();")
        h(f"  {v}void {a.name}Notify(Mox::U32 key) const;")

    def define_queue(self, e, a):
        c = self.c
        t = self.cxx(a.type)
        pv = self.param(a.type)
        m = f"{a.name}_"
        meta = f"{a.name}Metadata_"
        head = f"Mox::queueHeadUpdate({m}, &{meta});"
        c(f"{t} {e.cls}::{a.name}(Mox::U32 sequence) const {{")
        c(f"  auto entry = Mox::queueFind({m}, sequence);")
        c(f"  return entry == {m}.end() ? {t}() : entry->second;")
        c("}")
        c()
        c(f"Mox::U32 {e.cls}::{a.name}Enq({pv} value) {{")
        c(f"  const Mox::U32 key = {meta}.tail++;")
        c("  // Sequences grow, so the entry goes last; the head stays, as an empty queue's head")
        c("  // is the tail.")
        c(f"  {m}.emplace_back(key, value);")
        c(f"  {self.notify(a, 'key')}")
        c("  return key;")
        c("}")
        c()
        c(f"{t} {e.cls}::{a.name}Deq() {{")
        c(f"  if ({m}.empty()) return {t}();")
        c(f"  auto removed = {m}.takeFront();")
        c(f"  {head}")
        c(f"  {self.notify(a, 'removed.first')}")
        c("  return std::move(removed.second);")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}Is(Mox::U32 key, {pv} value) {{")
        c(f"  auto entry = Mox::queuePosition({m}, key);")
        c(f"  if (entry != {m}.end() && entry->first == key) {{")
        c("    if (entry->second == value) return;")
        c("    entry->second = value;")
        c("  } else {")
        c(f"    {m}.emplace(entry, key, value);")
        c("  }")
        c(f"  if (key >= {meta}.tail) {meta}.tail = key + 1;")
        c(f"  {head}")
        c(f"  {self.notify(a, 'key')}")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}Del(Mox::U32 key) {{")
        c(f"  auto entry = Mox::queueFind({m}, key);")
        c(f"  if (entry == {m}.end()) return;")
        c("  auto removed = std::move(*entry);")
        c(f"  {m}.erase(entry);")
        c(f"  {head}")
        c(f"  {self.notify(a, 'removed.first')}")
        c("}")
        c()
        c(f"void {e.cls}::{a.name}DelAll() {{")
        c(f"  while (!{m}.empty()) {{")
        c(f"    auto removed = {m}.takeFront();")
        c(f"    {head}")
        c(f"    {self.notify(a, 'removed.first')}")
        c("  }")
        c("}")
        c()
        self.define_notify(e, a, "Mox::U32 key", "key")

    def define_notify(self, e, a, parameter, key):
        self.c(f"void {e.cls}::{a.name}Notify({parameter}) const {{")
        self.c(f"  {self.notify(a, key)}")
        self.c("}")
        self.c()


def generate(model, header_include):
    """Returns (header text, source text) of the model."""
    return Emitter(model, header_include).run()
