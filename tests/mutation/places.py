"""Finds the places of a C++ file that can be changed, and what each can be changed to.

Reads clang's syntax tree through libclang (Debian: python3-clang-14). README.md lists the kinds of changes and
the places that are left out."""

import dataclasses
import re
import sys

sys.path.append("/usr/lib/python3/dist-packages")  # Debian's, where another Python is found first
try:
    from clang import cindex
    from clang.cindex import CursorKind as Kind
    from clang.cindex import TypeKind
except ImportError:  # reported by mutate.py
    cindex = None

# How a place is written out again: a value, a condition, an expression without a value, a statement.
VALUE, CONDITION, VOID, STATEMENT = "value", "condition", "void", "statement"


@dataclasses.dataclass
class Place:
    """One change. The text is that of the file, [start, end) its bytes."""

    start: int
    end: int
    line: int
    function: str
    shape: str
    original: str
    change: str  # for people
    code: str  # for the compiler


OTHER_OPERATOR = {
    "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "^": "&", "<<": ">>", ">>": "<<",
    "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "%=": "*=", "&=": "|=", "|=": "&=", "^=": "&=",
    "<<=": ">>=", ">>=": "<<=",
}  # fmt: skip
COMPARISONS = ("<", "<=", ">", ">=", "==", "!=")
MOST_CONTEXT = 90  # of a text in the list
INCLUDE = re.compile(r"^#include <(\S+)>", re.MULTILINE)
LITERAL = re.compile(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlLzZ]*$")
NO_COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)
CONSTEXPR = re.compile(r"(?:\[\[\w+\]\]\s*|\b(?:static|inline|extern)\s+)*constexpr\b")


def plain(text):
    """On one line, and short enough for a list."""
    text = " ".join(NO_COMMENT.sub(" ", text).split())
    return text if len(text) <= 100 else f"{text[:65]} ... {text[-30:]}"


def is_integer(kind):
    names = "CHAR_U UCHAR USHORT UINT ULONG ULONGLONG CHAR_S SCHAR SHORT INT LONG LONGLONG".split()
    return kind in [getattr(TypeKind, name) for name in names]


def is_number(kind):
    return is_integer(kind) or kind in (TypeKind.FLOAT, TypeKind.DOUBLE)


def kind_of(cursor):
    return cursor.type.get_canonical().kind


def without_wrapping(cursor):
    """The expression inside what the compiler has added."""
    while cursor.kind == Kind.UNEXPOSED_EXPR:
        inside = list(cursor.get_children())
        if len(inside) != 1 or inside[0].extent != cursor.extent:
            break
        cursor = inside[0]
    return cursor


class Finder:
    """The places of one file."""

    def __init__(self, text, macros):
        self.text = text
        self.macros = macros  # (start, end) of each use of a macro
        self.function = ""
        self.by_reference = False  # whether the function's result is a reference
        self.loops = []  # True inside a loop, False inside a switch within it
        self.around = []  # what the expression stands in, the innermost last
        self.places = []

    def source(self, cursor):
        return self.text[cursor.extent.start.offset : cursor.extent.end.offset]

    def add(self, cursor, shape, change, code=None, original=None, end=None):
        start = cursor.extent.start.offset
        end = end or cursor.extent.end.offset
        if any(first <= start and end <= last for first, last in self.macros):
            return
        source = self.text[start:end]
        if not source or source.count("(") != source.count(")"):
            return  # ends inside a macro
        self.places.append(Place(start, end, self.text.count("\n", 0, start) + 1, self.function, shape,
                                 plain(original or source), plain(change), code or change))  # fmt: skip

    # --- declarations -------------------------------------------------------------------------------

    def declaration(self, cursor):
        """What is outside of functions: their bodies are wanted, and the first values of members."""
        kind = cursor.kind
        if kind in (Kind.NAMESPACE, Kind.LINKAGE_SPEC, Kind.UNEXPOSED_DECL, Kind.CLASS_DECL, Kind.STRUCT_DECL,
                    Kind.UNION_DECL, Kind.CLASS_TEMPLATE):  # fmt: skip
            for child in cursor.get_children():
                self.declaration(child)
        elif kind in (Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR,
                      Kind.CONVERSION_FUNCTION, Kind.FUNCTION_TEMPLATE):  # fmt: skip
            self.whole_function(cursor)
        elif kind == Kind.FIELD_DECL:
            self.function = name_of(cursor)
            self.around = [cursor]
            self.first_value(cursor)
            self.around = []

    def whole_function(self, cursor):
        if not cursor.is_definition() or self.source(cursor).startswith("consteval"):
            return
        self.function = name_of(cursor)
        self.by_reference = cursor.result_type.kind in (TypeKind.LVALUEREFERENCE, TypeKind.RVALUEREFERENCE)
        for child in cursor.get_children():
            if child.kind not in (Kind.PARM_DECL, Kind.TEMPLATE_TYPE_PARAMETER, Kind.TEMPLATE_NON_TYPE_PARAMETER):
                self.visit(child)

    def first_value(self, cursor):
        """The value that a declared member or variable begins with. Sizes and template arguments come
        before it."""
        children = list(cursor.get_children())
        if not children or not children[-1].kind.is_expression():
            return
        value = children[-1]
        if value.extent.start.offset < cursor.location.offset:
            return  # a template argument
        before = self.text[cursor.extent.start.offset : value.extent.start.offset].rstrip()
        has_value = before.endswith(("=", "(", "{")) or self.source(value).startswith("{")
        if has_value or value.kind in (Kind.CALL_EXPR, Kind.UNEXPOSED_EXPR, Kind.INIT_LIST_EXPR):
            self.visit(value)

    def variable(self, cursor):
        if CONSTEXPR.match(self.source(cursor)) or cursor.storage_class == cindex.StorageClass.STATIC:
            return
        children = list(cursor.get_children())
        if cursor.type.is_const_qualified() and children and self.is_constant(children[-1]):
            return  # the compiler uses it as a constant; it is changed where it is used
        self.first_value(cursor)

    def is_constant(self, cursor):
        """Whether the compiler computes the value, whatever the program does."""
        cursor = without_wrapping(cursor)
        if cursor.kind in (Kind.INTEGER_LITERAL, Kind.CXX_BOOL_LITERAL_EXPR, Kind.CXX_UNARY_EXPR):
            return True
        if cursor.kind == Kind.DECL_REF_EXPR:
            return self.is_named_constant(cursor) or cursor.referenced.kind == Kind.ENUM_CONSTANT_DECL
        inside = [child for child in cursor.get_children() if child.kind != Kind.TYPE_REF]
        return cursor.kind != Kind.CALL_EXPR and inside != [] and all(map(self.is_constant, inside))

    def is_named_constant(self, cursor):
        variable = cursor.referenced
        if variable is None or variable.kind != Kind.VAR_DECL or not variable.type.is_const_qualified():
            return False
        words = [token.spelling for _, token in zip(range(4), variable.get_tokens())]
        if "constexpr" in words:
            return True
        inside = list(variable.get_children())
        return is_integer(kind_of(variable)) and inside != [] and self.is_constant(inside[-1])

    # --- statements ---------------------------------------------------------------------------------

    def visit(self, cursor):
        kind = cursor.kind
        if kind in LEFT_OUT:
            return
        self.around.append(cursor)
        handler = HANDLERS.get(kind)
        if handler is None or handler(self, cursor) is not False:
            for child in cursor.get_children():
                self.visit(child)
        self.around.pop()

    def in_context(self, cursor, change):
        """A number alone says little: what it stands in, before and after the change."""
        start, end = cursor.extent.start.offset, cursor.extent.end.offset
        for around in reversed(self.around):
            first, last = around.extent.start.offset, around.extent.end.offset
            if last - first > MOST_CONTEXT or around.kind in (Kind.COMPOUND_STMT, Kind.IF_STMT, Kind.FOR_STMT):
                break
            if (first, last) != (start, end):
                return self.text[first:last], self.text[first:start] + change + self.text[end:last]
        return self.source(cursor), change

    def statements(self, cursor):
        """Those without a value can be left out."""
        for child in cursor.get_children():
            self.removable(child)

    def removable(self, cursor):
        inside = without_wrapping(cursor)
        if inside.kind in REMOVABLE and not (
            inside.kind == Kind.BINARY_OPERATOR and self.operator_of(inside)[0] != "="
        ):
            if inside.kind != Kind.UNARY_OPERATOR or "++" in self.source(inside) or "--" in self.source(inside):
                self.add(cursor, VOID, "(nothing)", "(void)0")

    def condition(self, cursor):
        inside = without_wrapping(cursor)
        if inside.kind == Kind.CXX_BOOL_LITERAL_EXPR or self.source(cursor).startswith("!"):
            return
        if inside.kind == Kind.BINARY_OPERATOR and self.operator_of(inside)[0] in ("==", "!="):
            return  # has been changed to the other one
        self.add(cursor, CONDITION, f"!({self.source(cursor)})")

    def if_statement(self, cursor):
        children = list(cursor.get_children())
        if re.match(r"if\s+constexpr", self.source(cursor)):
            return
        if all(child.kind != Kind.VAR_DECL for child in children):
            first = next((i for i, child in enumerate(children) if child.kind.is_expression()), None)
            if first is not None:
                self.condition(children[first])
                for child in children[first + 1 :]:
                    self.removable(child)

    def while_statement(self, cursor):
        children = list(cursor.get_children())
        if children[0].kind.is_expression():
            self.condition(children[0])
        self.loop(children, children[1:])
        return False

    def do_statement(self, cursor):
        children = list(cursor.get_children())
        self.condition(children[-1])
        self.loop(children, children[:1])
        return False

    def for_statement(self, cursor):
        children = list(cursor.get_children())
        start = cursor.extent.start.offset
        semicolons, depth = [], 0
        for i in range(start, cursor.extent.end.offset):
            depth += {"(": 1, "{": 1, ")": -1, "}": -1}.get(self.text[i], 0)
            if self.text[i] == ";" and depth == 1:
                semicolons.append(i)
            if depth == 0 and self.text[i] == ")":
                break
        for child in children[:-1]:
            offset = child.extent.start.offset
            if len(semicolons) == 2 and semicolons[0] < offset < semicolons[1]:
                self.condition(child)
            elif len(semicolons) == 2 and offset > semicolons[1]:
                self.removable(child)
        self.loop(children, children[-1:])
        return False

    def range_statement(self, cursor):
        children = list(cursor.get_children())
        self.loop(children, children[-1:])
        return False

    def loop(self, children, bodies):
        for child in children:
            inside = child in bodies
            if inside:
                self.loops.append(True)
                self.removable(child)
            self.visit(child)
            if inside:
                self.loops.pop()

    def switch_statement(self, cursor):
        self.loops.append(False)
        for child in cursor.get_children():
            self.visit(child)
        self.loops.pop()
        return False

    def case_statement(self, cursor):
        children = list(cursor.get_children())
        for child in children[1 if cursor.kind == Kind.CASE_STMT else 0 :]:
            self.removable(child)
            self.visit(child)
        return False

    def leaving(self, cursor):
        """break, continue, and return without a value."""
        word = self.source(cursor)
        end = re.compile(r"\s*;").match(self.text, cursor.extent.end.offset)
        if end is None:
            return
        if word == "return":
            self.add(cursor, STATEMENT, "(nothing)", ";", original=word, end=end.end())
        elif self.loops and self.loops[-1]:
            other = {"break": "continue", "continue": "break"}[word]
            self.add(cursor, STATEMENT, other, other + ";", original=word, end=end.end())

    def return_statement(self, cursor):
        children = list(cursor.get_children())
        if not children:
            self.leaving(cursor)
            return
        value = without_wrapping(children[0])
        if self.by_reference or value.kind in (Kind.INTEGER_LITERAL, Kind.CXX_BOOL_LITERAL_EXPR, Kind.BINARY_OPERATOR,
                                               Kind.UNARY_OPERATOR, Kind.CXX_NULL_PTR_LITERAL_EXPR):  # fmt: skip
            return
        kind = kind_of(value)
        others = ["true", "false"] if kind == TypeKind.BOOL else ["nullptr"] if kind == TypeKind.POINTER else []
        for other in others or (["0"] if is_integer(kind) else []):
            original = f"return {self.source(children[0])}"
            shape = CONDITION if kind == TypeKind.BOOL else VALUE
            self.add(children[0], shape, f"return {other}", other, original=original)

    def lambda_expression(self, cursor):
        loops, self.loops = self.loops, []
        by_reference, self.by_reference = self.by_reference, False
        for child in cursor.get_children():
            if child.kind == Kind.COMPOUND_STMT:
                self.visit(child)
        self.loops, self.by_reference = loops, by_reference
        return False

    # --- expressions --------------------------------------------------------------------------------

    def operator_of(self, cursor):
        """The operator, and what stands left and right of it."""
        children = list(cursor.get_children())
        if len(children) != 2:
            return "", "", ""
        left, right = children
        between = self.text[left.extent.end.offset : right.extent.start.offset]
        return NO_COMMENT.sub(" ", between).strip(), self.source(left), self.source(right)

    def binary(self, cursor):
        operator, left, right = self.operator_of(cursor)
        if operator in ("&&", "||"):
            for side in (left, right):
                self.add(cursor, CONDITION, side, f"static_cast<bool>({side})")
            return
        if operator not in OTHER_OPERATOR:
            return
        kinds = [kind_of(child) for child in cursor.get_children()]
        if operator not in COMPARISONS:
            if not all(is_number(kind) for kind in kinds):
                if operator not in ("+", "+=", "-=") or kinds[0] != TypeKind.POINTER or not is_integer(kinds[1]):
                    return
        elif operator not in ("==", "!=") and TypeKind.POINTER not in kinds and not all(map(is_number, kinds)):
            if TypeKind.ENUM not in kinds:
                return
        other = OTHER_OPERATOR[operator]
        change = f"{left} {other} {right}"
        if operator == "%" or other in ("/", "%"):  # never a division by what may be 0
            if operator == "*":
                change = f"{left} + {right}"
            elif operator == "*=":
                change = f"{left} += {right}"
        self.add(cursor, VALUE, change)

    def unary(self, cursor):
        source = self.source(cursor)
        operand = self.source(next(cursor.get_children()))
        kind = kind_of(cursor)
        if source.startswith("!="):
            return  # the compiler's own, for a != b where only == is defined
        if source.startswith("!"):
            self.add(cursor, CONDITION, operand, f"static_cast<bool>({operand})")
        elif source.startswith(("++", "--")):
            self.add(cursor, VALUE, {"++": "--", "--": "++"}[source[:2]] + source[2:])
        elif source.endswith(("++", "--")):
            self.add(cursor, VALUE, source[:-2] + {"++": "--", "--": "++"}[source[-2:]])
        elif source.startswith(("-", "~")) and is_number(kind):
            self.add(cursor, VALUE, operand)

    def integer(self, cursor):
        source = self.source(cursor)
        if LITERAL.match(source):
            zero = int(source.rstrip("uUlLzZ").replace("'", ""), 0) == 0 if not source.startswith("00") else True
            self.neighbours(cursor, source, below=not zero and not source.lower().startswith("0x"))

    def neighbours(self, cursor, source, below, pattern="{}"):
        for step in ("+ 1", "- 1")[: 2 if below else 1]:
            original, change = self.in_context(cursor, f"({source} {step})")
            self.add(cursor, VALUE, change, pattern.format(f"{source} {step}"), original)

    def boolean(self, cursor):
        source = self.source(cursor)
        if source in ("true", "false"):
            other = "false" if source == "true" else "true"
            original, change = self.in_context(cursor, other)
            self.add(cursor, VALUE, change, other, original)

    def reference(self, cursor):
        """A constant has a neighbour wherever it is used."""
        if is_integer(kind_of(cursor)) and self.is_named_constant(cursor):
            source = self.source(cursor)
            pattern = f"static_cast<std::remove_cvref_t<decltype({source})>>({{}})"
            self.neighbours(cursor, source, True, pattern)
        return False

    def member(self, cursor):
        for child in list(cursor.get_children())[:1]:
            if child.kind.is_expression():
                self.visit(child)
        return False

    def conditional(self, cursor):
        self.condition(next(cursor.get_children()))


def name_of(cursor):
    names = []
    while cursor is not None and cursor.kind != Kind.TRANSLATION_UNIT:
        if cursor.kind != Kind.NAMESPACE and cursor.spelling:
            names.append(cursor.spelling.split("<")[0] or cursor.spelling)
        cursor = cursor.semantic_parent
    return "::".join(reversed(names))


if cindex is not None:
    REMOVABLE = (Kind.CALL_EXPR, Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.UNARY_OPERATOR)
    LEFT_OUT = (Kind.STATIC_ASSERT, Kind.ENUM_DECL, Kind.CXX_UNARY_EXPR, Kind.TYPE_REF, Kind.TEMPLATE_REF,
                Kind.NAMESPACE_REF, Kind.PARM_DECL, Kind.TYPEDEF_DECL, Kind.TYPE_ALIAS_DECL, Kind.STRUCT_DECL,
                Kind.CLASS_DECL, Kind.ANNOTATE_ATTR, Kind.ALIGNED_ATTR)  # fmt: skip
    HANDLERS = {
        Kind.VAR_DECL: lambda self, cursor: self.variable(cursor) or False,
        Kind.COMPOUND_STMT: Finder.statements,
        Kind.IF_STMT: Finder.if_statement,
        Kind.WHILE_STMT: Finder.while_statement,
        Kind.DO_STMT: Finder.do_statement,
        Kind.FOR_STMT: Finder.for_statement,
        Kind.CXX_FOR_RANGE_STMT: Finder.range_statement,
        Kind.SWITCH_STMT: Finder.switch_statement,
        Kind.CASE_STMT: Finder.case_statement,
        Kind.DEFAULT_STMT: Finder.case_statement,
        Kind.BREAK_STMT: Finder.leaving,
        Kind.CONTINUE_STMT: Finder.leaving,
        Kind.RETURN_STMT: Finder.return_statement,
        Kind.LAMBDA_EXPR: Finder.lambda_expression,
        Kind.BINARY_OPERATOR: Finder.binary,
        Kind.COMPOUND_ASSIGNMENT_OPERATOR: Finder.binary,
        Kind.UNARY_OPERATOR: Finder.unary,
        Kind.INTEGER_LITERAL: Finder.integer,
        Kind.CXX_BOOL_LITERAL_EXPR: Finder.boolean,
        Kind.DECL_REF_EXPR: Finder.reference,
        Kind.MEMBER_REF_EXPR: Finder.member,
        Kind.CONDITIONAL_OPERATOR: Finder.conditional,
    }


MACRO = re.compile(r"\b(?:[A-Z][A-Z0-9_]+|assert)\b(\s*\()?")


def uses_of_macros(text):
    """The ranges of what is written in capitals, as macros are here, with their arguments. Comments
    and literals do no harm, because nothing is changed there."""
    for match in MACRO.finditer(text):
        end, depth = match.end(), 1
        while match[1] and depth and end < len(text):
            depth += {"(": 1, ")": -1}.get(text[end], 0)
            end += 1
        yield match.start(), end


def with_precompiled(options, sources, folder):
    """The options with what the sources include of the system parsed already, which is most of the work."""
    includes = {name for path in sources for name in INCLUDE.findall(path.read_text(encoding="latin-1"))}
    first = [name for name in ("winsock2.h", "windows.h") if name in includes]  # in this order
    header = folder / "precompiled.h"
    folder.mkdir(parents=True, exist_ok=True)
    header.write_text("".join(f"#include <{name}>\n" for name in first + sorted(includes - set(first))))
    unit = cindex.Index.create().parse(str(header), args=["-x", "c++-header", *options],
                                       options=cindex.TranslationUnit.PARSE_INCOMPLETE)  # fmt: skip
    unit.save(str(header) + ".pch")
    return [*options, "-include-pch", str(header) + ".pch"]


def find(path, options, root, known=()):
    """Of the file and each header below root that it includes, without the known ones, the places."""
    unit = cindex.Index.create(excludeDecls=True).parse(str(path), args=options)
    # One without a place is about the precompiled headers themselves, and does no harm.
    errors = [str(note) for note in unit.diagnostics
              if note.severity >= cindex.Diagnostic.Error and note.location.file is not None]  # fmt: skip
    if errors:
        raise SystemExit(f"mutate: {path}: clang does not understand it: {errors[0]}")
    wanted = {str(path)} | {inclusion.include.name for inclusion in unit.get_includes()}
    wanted = {name for name in wanted if name.startswith(str(root)) and name not in known}
    finders = {}
    for name in wanted:
        with open(name, encoding="latin-1", newline="") as file:
            text = file.read()
        finders[name] = Finder(text, list(uses_of_macros(text)))
    for cursor in unit.cursor.get_children():
        if cursor.location.file is not None and cursor.location.file.name in finders:
            finders[cursor.location.file.name].declaration(cursor)
    return {name: finder.places for name, finder in finders.items()}
