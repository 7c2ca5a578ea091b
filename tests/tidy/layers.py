"""Who may include whom, from the ground up.

A file of src/ includes only files of its own layer or of a lower one, by their path from src/,
and no file includes itself by way of others. The layers are told by the longest prefix.
"""
import cpp
from tree import Finding

LAYERS = [
    ["common"],
    ["protocol", "route"],
    ["tracker"],
    ["quality"],
    ["relay", "udp"],
    ["relay/relay_mgr"],
    ["icmp"],
    ["provider", "gametest"],
]

# Leaves that stand low although their folder stands high: what they may include, and who below
# their folder may include them. The record of a socket belongs to the hooks, and the relay's
# helpers look it up.
LEAVES = {
    "provider/socket_map": {"includes": ["common"], "used_by": ["relay/socket_helpers"]},
}

# Folders outside src/ that must not know the product.
PRODUCT_FREE = ["port"]


def unit(path):
    """src/route/route.cpp -> route/route"""
    return path.removeprefix("src/").rsplit(".", 1)[0]


def matches(name, prefix):
    return name == prefix or name.startswith(prefix + "/")


def level(name):
    found = [(len(p), i) for i, layer in enumerate(LAYERS) for p in layer if matches(name, p)]
    return max(found)[1] if found else None


def allowed(includer, included):
    if includer in LEAVES and included != includer:
        return any(matches(included, p) for p in LEAVES[includer]["includes"])
    if included in LEAVES and includer in LEAVES[included]["used_by"]:
        return True
    return level(included) <= level(includer)


def check_file(tree, path):
    name = unit(path)
    if level(name) is None:
        yield Finding(path, 0, "stands in a folder without a layer (tests/tidy/layers.py)")
        return
    for line, header, quoted in cpp.includes(tree.code(path)):
        target = "src/" + header
        if target not in tree.paths:
            if quoted:
                yield Finding(path, line, f'includes "{header}", which is no file of src/')
            continue
        if not quoted:
            yield Finding(path, line, f"includes <{header}>: our own headers stand in quotes")
        other = unit(target)
        if level(other) is not None and not allowed(name, other):
            yield Finding(path, line, f"includes {header}, which stands above it")


def cycles(tree):
    """One finding for each file by way of which a file includes itself."""
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
