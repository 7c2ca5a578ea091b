"""Which folders may include which, from the lowest layer up.

A file of src/ includes only files of its own folder or of a lower layer, by their path from src/,
and no file includes itself through others. Folders of the same layer do not include each other.
"""
import cpp
from tree import Finding

# From the lowest layer to the highest; a folder may include its own and lower ones.
LAYERS = [
    ["common"],
    ["abi", "protocol"],
    ["route"],
    ["tracker"],
    ["quality", "sockets"],
    ["relay"],
    ["stream", "udp"],
    ["engine"],
    ["icmp", "gametest"],
    ["hooks"],
    ["start"],
]

# Folders outside src/ that must not know the product.
PRODUCT_FREE = ["port"]


def folder(path):
    """src/route/route.cpp -> route"""
    return path.removeprefix("src/").split("/")[0]


def level(name):
    return next((i for i, layer in enumerate(LAYERS) if name in layer), None)


def allowed(includer, included):
    return includer == included or level(included) < level(includer)


def check_file(tree, path):
    name = folder(path)
    if level(name) is None:
        yield Finding(path, 0, "is in a folder without a layer (tests/tidy/layers.py)")
        return
    for line, header, quoted in cpp.includes(tree.code(path)):
        target = "src/" + header
        if target not in tree.paths:
            if quoted:
                yield Finding(path, line, f'includes "{header}", which is not a file of src/')
            continue
        if not quoted:
            yield Finding(path, line, f"includes <{header}>: use quotes for our own headers")
        other = folder(target)
        if level(other) is not None and not allowed(name, other):
            yield Finding(path, line, f"includes {header}, which is not in a lower layer")


def cycles(tree):
    """One finding for each file through which a file includes itself."""
    graph = {
        path: [(line, "src/" + header) for line, header, _ in cpp.includes(tree.code(path))
               if "src/" + header in tree.paths]
        for path in tree.cpp_files("src/")
    }
    done, stack = set(), []

    def visit(path):
        stack.append(path)
        for line, target in graph.get(path, []):
            if target in stack:
                way = stack[stack.index(target):] + [target]
                yield Finding(path, line, "includes itself: " + " -> ".join(way))
            elif target not in done:
                yield from visit(target)
        stack.pop()
        done.add(path)

    for path in graph:
        if path not in done:
            yield from visit(path)


def check_product_free(tree, path):
    for line, header, quoted in cpp.includes(tree.code(path)):
        if quoted and "src/" + header in tree.paths and "port/" + header not in tree.paths:
            yield Finding(path, line, f"includes {header} of the product")


def check(tree):
    for path in tree.cpp_files("src/"):
        yield path, list(check_file(tree, path))
    for folder in PRODUCT_FREE:
        for path in tree.cpp_files(folder + "/"):
            yield path, list(check_product_free(tree, path))
    yield "src/", list(cycles(tree))
