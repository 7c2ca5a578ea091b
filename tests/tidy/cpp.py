"""Just enough C++ to tell code from comments and literals."""
import re

TOKEN = re.compile(
    r"""
    (?P<comment>//(?:[^\n\\]|\\.)*|/\*.*?\*/)
  | (?P<raw>R"(?P<mark>[^()\\\s]*)\(.*?\)(?P=mark)")
  | (?P<number>(?<![\w.])[0-9][0-9a-zA-Z_.']*)      # with separators, which are not quotes
  | (?P<literal>"(?:[^"\\\n]|\\.)*"|'(?:[^'\\\n]|\\.)*')
    """,
    re.VERBOSE | re.DOTALL,
)
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*("[^"]*"|<[^>]*>)', re.MULTILINE)


def blank(text, literals):
    """Blanks comments, and with `literals` the content of strings. Line numbers stay the same."""
    keep = {m.span(1) for m in INCLUDE.finditer(text)}  # the name of a header is not a literal

    def replace(match):
        found = match[0]
        if match["number"] or match.span() in keep:
            return found
        if match["comment"]:
            return re.sub(r"[^\n]", " ", found)
        if not literals:
            return found
        return found[0] + re.sub(r"[^\n]", " ", found[1:-1]) + found[-1]

    return TOKEN.sub(replace, text)


def line_of(text, position):
    return text.count("\n", 0, position) + 1


def includes(code):
    """Yields (line, name, whether it is quoted) for each include."""
    for match in INCLUDE.finditer(code):
        yield line_of(code, match.start(1)), match[1][1:-1], match[1][0] == '"'
