"""Writes the mutated copy of the product: every change is in it, and asks by its number whether it acts."""

import hashlib
import json
import pathlib
import shutil

import choice
import places

HERE = pathlib.Path(__file__).resolve().parent
LEFT_OUT = ("start/dll_main.cpp", "start/config_source_gametest.cpp")  # no suite links them
# Members of a class of which there are arrays that begin with {}: GCC 12 does not copy such an array where its
# elements begin with what is not a constant.
LEFT_OUT_MEMBERS = ("RelayRecord::ip", "RelayRecord::relay")
NUMBERS_OF_A_FILE = 1000  # what changes in one file then leaves the numbers of the others alone


def nested(group):
    """The places as a tree: (start, end, those of that range, what lies inside)."""
    ranges = {}
    for place in group:
        ranges.setdefault((place.start, place.end), []).append(place)
    roots, open_nodes = [], []
    for (start, end), same in sorted(ranges.items(), key=lambda item: (item[0][0], -item[0][1])):
        while open_nodes and open_nodes[-1][1] <= start:
            open_nodes.pop()
        node = (start, end, same, [])
        (open_nodes[-1][3] if open_nodes else roots).append(node)
        open_nodes.append(node)
    return roots


def render(text, start, end, nodes, numbers):
    out, at = [], start
    for first, last, same, inside in nodes:
        out.append(text[at:first])
        out.append(alternatives(render(text, first, last, inside, numbers), same, numbers))
        at = last
    return "".join(out) + text[at:end]


def alternatives(original, same, numbers):
    """The changes stand before the original. Only one mutant acts, so they need no mutants inside."""
    shapes = {place.shape for place in same}
    if shapes == {places.STATEMENT}:
        choices = "".join(f"if (VYR_MUTANT({numbers[id(p)]})) {{ {p.code} }} else " for p in same)
        return f"{{ {choices}{{ {original} }} }}"
    cast = "(void)" if places.VOID in shapes else "(bool)" if places.CONDITION in shapes else ""
    choices = "".join(f"VYR_MUTANT({numbers[id(p)]}) ? {cast}({p.code}) : " for p in same)
    if not cast and any(place.change == "return 0" for place in same):
        cast = "+"  # the number itself, where it is an atomic one's
    return f"({choices}{cast}({original}))"


def mutants_of(name, found, first):
    """The mutants of a file, by place, with names that outlive a shift of its lines."""
    seen, mutants = {}, []
    for i, place in enumerate(found):
        words = (place.function, place.original, place.change)
        seen[words] = seen.get(words, 0) + 1
        change = f"{place.original} -> {place.change}" + (f" #{seen[words]}" if seen[words] > 1 else "")
        mutants.append({"number": first + i, "file": name, "line": place.line, "function": place.function,
                        "change": change})  # fmt: skip
    return mutants


def put(path, text):
    """Leaves a file alone that has this text already, so that it is not compiled again."""
    data = text.encode("latin-1")
    if not path.exists() or path.read_bytes() != data:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)


def distinct(found):
    """In the order of the text, each change once."""
    seen = {}
    for place in sorted(found, key=lambda place: (place.start, -place.end)):
        seen.setdefault((place.start, place.end, place.code), place)
    return list(seen.values())


def mutated(text, name, found, first, everything=True):
    """The file's text with its mutants, or with those that are chosen, and all of them."""
    found = distinct(found)
    mutants = mutants_of(name, found, first)
    choice.mark(text, found, mutants)
    used = [place for place, mutant in zip(found, mutants) if everything or mutant["chosen"]]
    numbers = {id(place): mutant["number"] for place, mutant in zip(found, mutants)}
    body = render(text, 0, len(text), nested(used), numbers)
    return f'#include "mutation/mutant.h"\n#line 1 "{name}"\n{body}', mutants


def sources_below(root):
    return sorted(path for path in root.rglob("*") if path.suffix in (".cpp", ".h"))


def places_of_all(root, options, cache, say):
    """Of each file its places. What was found is kept until the file, a header or this tool changes."""
    sources = sources_below(root)
    headers_too = [path for path in sources if path.relative_to(root).as_posix() not in LEFT_OUT]
    units = [path for path in headers_too if path.suffix == ".cpp"]
    headers = b"".join(path.read_bytes() for path in sources if path.suffix == ".h")
    headers += " ".join(map(str, units)).encode()  # the first one that includes a header owns it
    tool = (HERE / "places.py").read_bytes()
    found, parsed = {}, None
    for i, path in enumerate(units):
        say(f"reading {i + 1}/{len(units)} {path.relative_to(root)}")
        key = hashlib.sha256(b"\0".join((tool, headers, " ".join(options).encode(), path.read_bytes()))).hexdigest()
        note = cache / f"{path.relative_to(root).as_posix().replace('/', '.')}.json"
        kept = json.loads(note.read_text()) if note.exists() else {}
        if kept.get("key") == key:
            new = {name: [places.Place(*fields) for fields in some] for name, some in kept["places"].items()}
        else:
            parsed = parsed or places.with_precompiled(options, headers_too, cache)
            new = {str(pathlib.Path(name).relative_to(root)): some
                   for name, some in places.find(path, parsed, root, {str(root / name) for name in found}).items()}
            cache.mkdir(parents=True, exist_ok=True)
            note.write_text(json.dumps({"key": key, "places": {
                name: [list(vars(place).values()) for place in some] for name, some in new.items()}}))  # fmt: skip
        for name, some in new.items():
            found.setdefault(name, [place for place in some if place.function not in LEFT_OUT_MEMBERS])
    return found


def write_copy(root, out, found, everything):
    """The copy below out, if that is not None; returns the list of all mutants."""
    mutants = []
    first = 1
    for path in sorted(path for path in root.rglob("*") if path.is_file()):
        name = path.relative_to(root).as_posix()
        text = path.read_bytes().decode("latin-1")
        if found.get(name):
            text, new = mutated(text, name, found[name], first, everything)
            mutants += new
        if out is not None:
            put(out / name, text)
        if path.suffix in (".cpp", ".h"):
            first += NUMBERS_OF_A_FILE * (1 + len(found.get(name, [])) // NUMBERS_OF_A_FILE)
    if out is None:
        return mutants
    for name in ("mutant.h", "active.cpp"):
        put(out / "mutation" / name, (HERE / name).read_text())
    kept = {path.relative_to(root) for path in root.rglob("*")} | {pathlib.Path("mutation")}
    for path in sorted(out.rglob("*"), reverse=True):
        if path.relative_to(out) not in kept and path.parent != out / "mutation":
            shutil.rmtree(path) if path.is_dir() else path.unlink()
    return mutants
