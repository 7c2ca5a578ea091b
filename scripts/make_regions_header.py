#!/usr/bin/env python3
"""Makes the C header and the Kaitai Struct description of the shared regions from the records in src/.

usage: make_regions_header.py [--check | --fields] [ROOT]

Reads the packed records, the constants and the enumerations of src/abi (and the few that belong to
them elsewhere), and writes include/vyr_regions.h and docs/vyr_regions.ksy. With --check, only exits
with 1 if one of them differs from what would be written. With --fields, prints a list of everything in
the header, by which a test compares the header with the records.
"""
import argparse
import ast
import dataclasses
import pathlib
import re
import sys
import textwrap

HEADER = "include/vyr_regions.h"
KSY = "docs/vyr_regions.ksy"
FILES = ["src/common/shared_mem_header.h"] + [
    f"src/abi/{name}.h" for name in (
        "proxy_formats", "launch_test_formats", "acc_config_formats", "restriction_formats",
        "mending_formats", "ip_table_formats", "blacklist_formats", "route_table_formats",
        "acc_decision_info", "comm_info_record", "report_channels", "report_records")
] + ["src/route/decision.h"]
INTEGERS = {"u8": 1, "u16": 2, "u32": 4, "u64": 8, "i32": 4, "char": 1, "double": 8}
C_TYPES = {"u8": "uint8_t", "u16": "uint16_t", "u32": "uint32_t", "u64": "uint64_t",
           "i32": "int32_t", "char": "char", "double": "double"}
KSY_TYPES = {"u8": "u1", "u16": "u2", "u32": "u4", "u64": "u8", "i32": "s4", "double": "f8"}

CONSTANT = re.compile(r"inline constexpr u32 (\w+)\s*=\s*([^;]*);(?:[ \t]*//(.*))?")
TEXT = re.compile(r'inline constexpr char (\w+)\[\] = "([^"]*)";')
CHANNEL = re.compile(r'inline constexpr ReportChannel k(\w+)Channel = \{\s*"(\w+)",\s*"(\w+)",'
                     r"\s*(\d+), (\d+), (\d+)\};")
STRUCT = re.compile(r"((?:^//[^\n]*\n)*)^struct (\w+) \{\n(.*?)^\};", re.MULTILINE | re.DOTALL)
FIELD = re.compile(r"^  (?:common::)?(\w+) (\w+)((?:\[\w+\])*)(?: = [^;]*)?;(?:[ \t]*//(.*))?$")
ALIAS = re.compile(r"^using (\w+) = (\w+);", re.MULTILINE)
REPORT_REGION = re.compile(r"^using (\w+) = ReportRegion<(\w+), (\d+)>;", re.MULTILINE)
ENUM = re.compile(r"^enum (\w+) : \w+ \{\n(.*?)^\};", re.MULTILINE | re.DOTALL)
ENUM_VALUE = re.compile(r"^  (\w+) = (-?\d+),", re.MULTILINE)
SIZE = re.compile(r"static_assert\(sizeof\((\w+)\) == (\d+)\);")


@dataclasses.dataclass
class Field:
    type: str
    name: str
    dimensions: list
    above: list
    comment: str = ""
    offset: int = 0


@dataclasses.dataclass
class Record:
    name: str
    fields: list
    comments: list
    size: int = 0


def upper(name):
    """kMaxGames -> VYR_MAX_GAMES, DECISION_ACCE -> VYR_DECISION_ACCE"""
    name = re.sub(r"^k(?=[A-Z])", "", name)
    return "VYR_" + re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_", name).upper()


def lower(name):
    return re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_", name).lower()


def comment_text(lines):
    return " ".join(line.strip().lstrip("/").strip() for line in lines).strip()


class Formats:
    """What the sources say, in the order in which they say it."""

    def __init__(self, sources):
        self.items = []  # ("constant" | "text" | "record" | "alias" | "channel" | "enum", …)
        self.values, self.records = {}, {}
        for path in FILES:
            self._read(sources[path])
        for path in FILES:
            for name, size in SIZE.findall(sources[path]):
                if name in self.records and self.records[name].size != int(size):
                    raise SystemExit(f"{name}: has {self.records[name].size} bytes here, {size} there")

    def _read(self, text):
        found = [(m.start(), how, m) for pattern, how in (
            (CONSTANT, self._constant), (TEXT, self._text), (CHANNEL, self._channel),
            (STRUCT, self._struct), (ALIAS, self._alias), (REPORT_REGION, self._report_region),
            (ENUM, self._enum)) for m in pattern.finditer(text)]
        for _, how, match in sorted(found, key=lambda f: f[0]):
            how(match)

    def number(self, expression):
        names = re.sub(r"\bk[A-Z]\w*", lambda m: str(self.values[m[0]]), expression)
        tree = ast.parse(" ".join(names.split()), mode="eval")
        return eval(compile(tree, "constant", "eval"), {"__builtins__": {}})

    def _constant(self, match):
        name, expression, comment = match.groups()
        if "sizeof" in expression:
            return
        self.values[name] = self.number(expression)
        is_bits = "0x" in expression or "|" in expression
        self.items.append(("constant", name, is_bits, comment_text([comment or ""])))

    def _text(self, match):
        self.items.append(("text", match[1], match[2]))

    def _channel(self, match):
        self.items.append(("channel", match[1], *match.groups()[1:]))

    def _alias(self, match):
        if match[2] in self.records:
            self.items.append(("alias", match[1], match[2]))

    def _enum(self, match):
        self.items.append(("enum", match[1], ENUM_VALUE.findall(match[2])))

    def _struct(self, match):
        above, name, body = match.groups()
        if "const char*" in body or name == "ReportRegion":  # no record; a template
            return
        record, comments = Record(name, [], above.split("\n")), []
        for line in body.split("\n"):
            if line.strip().startswith("//"):
                comments.append(line)
            elif field := FIELD.match(line):
                dimensions = re.findall(r"\w+", field[3])
                record.fields.append(Field(field[1], field[2], dimensions, comments,
                                           comment_text([field[4] or ""])))
                comments = []
            elif line.strip():
                raise SystemExit(f"{name}: cannot read the line '{line.strip()}'")
        self._add(record)

    def _report_region(self, match):
        region, record, slots = match.groups()
        self._add(Record(region, [
            Field("SharedMemHeader", "header", [], []), Field("u8", "reserved_12", ["4"], []),
            Field(record, "slots", [slots], [])], []))

    def _add(self, record):
        for field in record.fields:
            field.offset = record.size
            record.size += self.size_of(field)
        aliases = [i for i in self.items if i[0] == "alias"]
        self.records[record.name] = record
        self.items.append(("record", record, aliases))

    def element_size(self, name):
        for item in self.items:
            if item[:2] == ("alias", name):
                name = item[2]
        return INTEGERS.get(name) or self.records[name].size

    def size_of(self, field):
        size = self.element_size(field.type)
        for dimension in field.dimensions:
            size *= self.number(dimension)
        return size


# The C header.

PREFACE = """\
/* The shared regions of vyr for client programs in C and C++, C99 and later.
 *
 * Made by scripts/make_regions_header.py from the records in src/. Do not edit.
 * docs/regions.md says who makes each region, who may write to it, and when. docs/tables.md and
 * docs/reports.md say what the fields mean.
 *
 * Everything is little-endian and packed: fields may lie on any address, so copy a record before
 * you take the address of one of its fields. Sizes and offsets are checked at the end of this file.
 */
#ifndef VYR_REGIONS_H
#define VYR_REGIONS_H

/* clang-format off */
#include <stddef.h>
#include <stdint.h>
"""

CHECKS = """\
/* An array of negative size, and so an error, if a compiler lays a record out differently. */
#define VYR_CHECK_SIZE(record, size) \\
  typedef char record##_has_another_size[sizeof(record) == (size) ? 1 : -1]
#define VYR_CHECK_OFFSET(record, field, offset) \\
  typedef char record##_##field##_is_elsewhere[offsetof(record, field) == (offset) ? 1 : -1]
"""


def c_name(name):
    return C_TYPES.get(name) or "vyr_" + lower(name)


def c_words(text):
    """A comment of the sources, with the names that things have in C."""
    text = re.sub(r"\bk[A-Z]\w+", lambda m: upper(m[0]), text)
    text = text.replace("see decision.h", "one of the VYR_REASON_ values")
    text = text.replace("one of the DECISION_", "one of the VYR_DECISION_")
    text = text.replace("see NegoFailure", "see docs/reports.md")
    text = re.sub(r" \(report_channels\.h\)|::mended", "", text)
    return re.sub(r"\b[A-Z]\w*[a-z](?:Region|Record|Info)\b", lambda m: c_name(m[0]), text)


def c_comment(lines, indent=""):
    text = c_words(comment_text(lines))
    if not text:
        return []
    wrapped = textwrap.wrap(text, 94 - len(indent))
    wrapped[-1] += " */"
    return [f"{indent}/* {wrapped[0]}"] + [f"{indent} * {w}" for w in wrapped[1:]]


def c_record(formats, record):
    lines = c_comment(record.comments)
    lines.append(f"typedef struct vyr_{lower(record.name)} {{")
    for field in record.fields:
        bounds = "".join(f"[{upper(d) if d.startswith('k') else d}]" for d in field.dimensions)
        declaration = f"  {c_name(field.type)} {field.name}{bounds};"
        lines += c_comment(field.above, "  ")
        text = c_words(field.comment)
        lines.append(f"{declaration}  /* {text} */" if text else declaration)
    return lines + [f"}} vyr_{lower(record.name)};  /* {record.size} bytes */", ""]


def c_number(value, is_bits):
    return f"0x{value:x}u" if is_bits else f"{value}u"


def c_item(formats, item):
    kind = item[0]
    if kind == "constant":
        _, name, is_bits, comment = item
        line = f"#define {upper(name)} {c_number(formats.values[name], is_bits)}"
        return [f"{line}  /* {c_words(comment)} */" if comment else line]
    if kind == "text":
        return [f'#define {upper(item[1])} "{item[2]}"']
    if kind == "channel":
        prefix = upper(item[1])
        return [f'#define {prefix}_REGION_NAME "{item[2]}"', f'#define {prefix}_MUTEX_NAME "{item[3]}"',
                f"#define {prefix}_SLOT_COUNT {item[5]}u"]
    if kind == "alias":
        return [f"typedef {c_name(item[2])} {c_name(item[1])};", ""]
    if kind == "enum":
        return [""] + [f"#define {upper(name)} {value if int(value) >= 0 else f'({value})'}"
                       for name, value in item[2]]
    return c_record(formats, item[1])


def make_header(formats):
    lines, packed = PREFACE.split("\n"), False
    for item in formats.items:
        is_type = item[0] in ("record", "alias")
        if is_type and not packed:
            lines += ["", "#pragma pack(push, 1)"]
        if packed and not is_type:
            lines += ["#pragma pack(pop)", ""]
        packed = is_type
        lines += c_item(formats, item)
    if packed:
        lines.append("#pragma pack(pop)")
    lines += ["", *CHECKS.split("\n")]
    for record in formats.records.values():
        name = c_name(record.name)
        lines.append(f"VYR_CHECK_SIZE({name}, {record.size});")
        lines += [f"VYR_CHECK_OFFSET({name}, {f.name}, {f.offset});" for f in record.fields]
    lines += ["", "#undef VYR_CHECK_SIZE", "#undef VYR_CHECK_OFFSET", "/* clang-format on */", "",
              "#endif", ""]
    return re.sub(r"\n{3,}", "\n\n", "\n".join(lines))


def make_fields(formats):
    lines = []
    for item in formats.items:
        if item[0] == "constant":
            lines.append(f"VYR_SAME_NUMBER({item[1]}, {upper(item[1])})")
        elif item[0] == "enum":
            lines += [f"VYR_SAME_NUMBER({name}, {upper(name)})" for name, _ in item[2]]
        elif item[0] == "text":
            lines.append(f"VYR_SAME_TEXT({item[1]}, {upper(item[1])})")
        elif item[0] == "channel":
            channel, prefix = f"k{item[1]}Channel", upper(item[1])
            lines += [f"VYR_SAME_TEXT({channel}.mapping_name, {prefix}_REGION_NAME)",
                      f"VYR_SAME_TEXT({channel}.mutex_name, {prefix}_MUTEX_NAME)",
                      f"VYR_SAME_NUMBER({channel}.slot_count, {prefix}_SLOT_COUNT)"]
    for record in formats.records.values():
        lines.append(f"VYR_SAME_RECORD({record.name}, {c_name(record.name)})")
        lines += [f"VYR_SAME_FIELD({record.name}, {c_name(record.name)}, {f.name})"
                  for f in record.fields]
    return "\n".join(lines) + "\n"


# The Kaitai Struct description.

KSY_PREFACE = """\
# The shared regions and report records of vyr, for the Kaitai Struct compiler.
# Made by scripts/make_regions_header.py from the records in src/. Do not edit.
# A mapping is one of the types whose name ends in _region; that of the route table is route_mapping.
meta:
  id: vyr_regions
  endian: le
  encoding: UTF-8
doc-ref: docs/regions.md
types:
  route_mapping:
    seq:
      - {id: selector, type: u4, doc: "which of the two buffers is read; above 1 means 1"}
      - {id: buffers, type: route_region, repeat: expr, repeat-expr: 2}
"""


def ksy_field(formats, field):
    dimensions = [formats.number(d) for d in field.dimensions]
    said = c_words(field.comment).replace('"', "'").replace("vyr_", "")
    end = f', doc: "{said}"' if said else ""
    if field.type == "char":  # texts may be unterminated and in any encoding
        size = dimensions[-1]
        repeat = f", repeat: expr, repeat-expr: {dimensions[0]}" if len(dimensions) > 1 else ""
        return f"{{id: {field.name}, size: {size}{repeat}{end}}}"
    if field.type == "u8" and dimensions:
        return f"{{id: {field.name}, size: {dimensions[0]}{end}}}"
    kind = KSY_TYPES.get(field.type) or lower(field.type)
    for item in formats.items:
        if item[:2] == ("alias", field.type):
            kind = lower(item[2])
    repeat = f", repeat: expr, repeat-expr: {dimensions[0]}" if dimensions else ""
    return f"{{id: {field.name}, type: {kind}{repeat}{end}}}"


def make_ksy(formats):
    lines = [KSY_PREFACE.rstrip("\n")]
    for record in formats.records.values():
        lines += [f"  {lower(record.name)}:  # {record.size} bytes", "    seq:"]
        lines += [f"      - {ksy_field(formats, field)}" for field in record.fields]
    return "\n".join(lines) + "\n"


def made(read):
    """What both files must contain. read: path -> text."""
    formats = Formats({path: read(path) for path in FILES})
    return {HEADER: make_header(formats), KSY: make_ksy(formats)}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="compare, write nothing")
    parser.add_argument("--fields", action="store_true", help="print the list for the test")
    parser.add_argument("root", nargs="?", default=pathlib.Path(__file__).resolve().parents[1],
                        type=pathlib.Path, metavar="ROOT")
    arguments = parser.parse_args()

    def read(path):
        return (arguments.root / path).read_text(encoding="utf-8")

    if arguments.fields:
        sys.stdout.write(make_fields(Formats({path: read(path) for path in FILES})))
        return 0
    same = True
    for path, text in made(read).items():
        file = arguments.root / path
        if not file.exists() or file.read_text(encoding="utf-8") != text:
            same = False
            if not arguments.check:
                file.write_text(text, encoding="utf-8")
    return 1 if arguments.check and not same else 0


if __name__ == "__main__":
    sys.exit(main())
