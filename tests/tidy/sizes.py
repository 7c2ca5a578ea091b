"""No function of the product is longer than a screen. Warns of long files, which may contain more than
one idea. Some tables are long, too."""
import re

import cpp
from tree import Finding

MOST_LINES = {"src/": 300, "port/": 500, "devkit/": 500, "tests/": 700}
MOST_FUNCTION_LINES = 48
# What stands between a function's parameters and its body: qualifiers, a result, or initialisers.
FUNCTION = re.compile(r"\)\s*(?:const|noexcept|override|final|try|\s|->[^{}]*|:[^{}]*)*$")
NO_FUNCTION = re.compile(r"(?:if|for|while|switch|else|do|catch|try|namespace|class|struct|enum|union)\b")


def functions(text):
    """Yields (first line, last line) of each function, lambdas and those inside a function included."""
    code = cpp.blank(text, literals=True)
    code = re.sub(r"^[ \t]*#(?:[^\n\\]|\\.)*", lambda m: re.sub(r"[^\n]", " ", m[0]), code,
                  flags=re.MULTILINE | re.DOTALL)
    opened, after = [], 0
    for match in re.finditer(r"[;{}]", code):
        at = match.start()
        if match[0] == "{":
            head = code[after:at]
            start = after + len(head) - len(head.lstrip())
            is_function = FUNCTION.search(head) and not NO_FUNCTION.match(head.lstrip())
            opened.append(cpp.line_of(code, start) if is_function else None)
        elif match[0] == "}" and opened and (first := opened.pop()) is not None:
            yield first, cpp.line_of(code, at)
        after = at + 1


def check(tree):
    for folder, most in MOST_LINES.items():
        for path in tree.cpp_files(folder):
            text = tree.text(path)
            lines = text.count("\n")
            findings = [Finding(path, 0, f"has {lines} lines, more than {most}", warning=True)
                        ] if lines > most else []
            if folder == "src/":
                findings += [Finding(path, first, f"a function of {last - first + 1} lines, more than "
                                     f"{MOST_FUNCTION_LINES}") for first, last in functions(text)
                             if last - first >= MOST_FUNCTION_LINES]
            yield path, findings
