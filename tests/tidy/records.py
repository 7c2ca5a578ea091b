"""Packed records: assertions state the size of each and the offset of every field.

Best effort: it understands the kinds of declaration that are used in this tree.
"""
import re

import cpp
from tree import Finding

PRAGMA = re.compile(r"^[ \t]*#[ \t]*pragma[ \t]+pack[ \t]*\(([^)]*)\)", re.MULTILINE)
RECORD = re.compile(r"\b(?:struct|class|union)\s+(\w+)(?:\s+final)?\s*(?::[^{;]*)?\{")
NO_FIELD = re.compile(r"^\s*(?:static|using|typedef|friend|enum|template|struct\s+\w+\s*$"
                      r"|class\s+\w+\s*$|public|private|protected|constexpr)\b")
FIELD = re.compile(r"(\w+)\s*(?:\[[^\]]*\]\s*)*(?::\s*\d+\s*)?$")


def packed_spans(code):
    """Yields (start, end, line of a problem or 0, message)."""
    open_at = None
    for match in PRAGMA.finditer(code):
        words = [w.strip() for w in match[1].split(",")]
        line = cpp.line_of(code, match.start())
        if words[0] == "push":
            open_at = match.end()
        elif words == ["pop"] and open_at is not None:
            yield open_at, match.start(), 0, ""
            open_at = None
        else:
            yield 0, 0, line, "pack(push, 1) and pack(pop) go in pairs"
    if open_at is not None:
        yield 0, 0, cpp.line_of(code, open_at), "pack(push, 1) without its pack(pop)"


def closing(code, opening):
    depth = 0
    for i in range(opening, len(code)):
        depth += {"{": 1, "}": -1}.get(code[i], 0)
        if depth == 0:
            return i
    return len(code)


def statements(body):
    """The declarations of the body, without those in inner braces."""
    depth, current, ended_by_brace = 0, "", False
    for char in body:
        if char == "{":
            depth += 1
            ended_by_brace = False
        elif char == "}":
            depth -= 1
            ended_by_brace = depth == 0
        elif depth == 0:
            if char == ";":
                yield current
                current, ended_by_brace = "", False
                continue
            # A function with a body has no semicolon at its end.
            if ended_by_brace and not char.isspace() and char != ",":
                if "(" in current.split("=")[0]:
                    current = ""
                ended_by_brace = False
            current += char


def fields(body):
    for statement in statements(body):
        statement = re.sub(r"\b(?:public|private|protected)\s*:", " ", statement)
        if not statement.strip() or NO_FIELD.match(statement):
            continue
        declared = re.sub(r"<[^<>]*>", "", statement)
        if "(" in declared.split("=")[0]:
            continue
        for part in declared.split(","):
            match = FIELD.search(part.split("=")[0].strip())
            if match and not match[1].isdigit():
                yield match[1]


def records(code):
    """Yields (line, name, fields) for each packed record, including nested ones."""
    for start, end, _, _ in packed_spans(code):
        for match in RECORD.finditer(code, start, end):
            last = closing(code, match.end() - 1)
            yield (cpp.line_of(code, match.start()), match[1],
                   list(fields(code[match.end():last])))


def check_file(tree, path):
    code = tree.code(path)
    for _, _, line, message in packed_spans(code):
        if message:
            yield Finding(path, line, message)
    said = "\n".join(re.findall(r"static_assert\s*\(.*?;", code, re.DOTALL))
    for line, name, names in records(code):
        owner = rf"(?:\w+::)*{name}"
        if not re.search(rf"\bsizeof\s*\(\s*{owner}\s*\)\s*==", said):
            yield Finding(path, line, f"{name}: no assertion on its size")
        for field in names:
            if not re.search(rf"\boffsetof\s*\(\s*{owner}\s*,\s*{field}\s*\)\s*==", said):
                yield Finding(path, line, f"{name}.{field}: no assertion on its offset")


def check(tree):
    for path in tree.cpp_files("src/"):
        if "pragma pack" in tree.text(path):
            yield path, list(check_file(tree, path))
