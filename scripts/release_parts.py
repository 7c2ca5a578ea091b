#!/usr/bin/env python3
"""The parts of a release, for scripts/release.sh: every result depends on the arguments alone.

usage: release_parts.py version                      the version, from CMakeLists.txt
       release_parts.py split STAGE SYMBOLS          moves debug symbols out of the programs in STAGE
       release_parts.py links STAGE                  says which links of the documents in STAGE lead nowhere
       release_parts.py zip FOLDER FILE.zip NAME     packs FOLDER; all of it is below NAME/
       release_parts.py nsis STAGE FOLDER            writes the lists of files for packaging/vyr.nsi
       release_parts.py sbom STAGE FILE COMMIT       writes an SPDX 2.3 document
       release_parts.py check-sbom FILE              says what is missing in one
       release_parts.py sums FOLDER                  writes FOLDER/SHA256SUMS

Times in the results are those of SOURCE_DATE_EPOCH, in seconds since 1970.
"""
import argparse
import datetime
import hashlib
import json
import os
import pathlib
import re
import struct
import subprocess
import sys
import urllib.parse
import zipfile

import third_party

ROOT = third_party.ROOT
TOOLS = {0x14C: "i686-w64-mingw32-", 0x8664: "x86_64-w64-mingw32-"}


class Problem(Exception):
    pass


def project_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    found = re.search(r"^project\(vyr VERSION (\d+\.\d+\.\d+)", text, re.M)
    if not found:
        raise Problem("CMakeLists.txt has no project(vyr VERSION …)")
    return found.group(1)


def epoch():
    text = os.environ.get("SOURCE_DATE_EPOCH", "")
    if not text.isdigit():
        raise Problem("SOURCE_DATE_EPOCH is not set to seconds since 1970")
    return datetime.datetime.fromtimestamp(int(text), datetime.timezone.utc)


def files_of(folder):
    """All files below it, by their names with /, sorted."""
    return sorted((path.relative_to(folder).as_posix(), path)
                  for path in pathlib.Path(folder).rglob("*") if path.is_file())


# --- Symbols. ---------------------------------------------------------------------------------

def machine_of(path):
    data = path.read_bytes()[:4096]
    if data[:2] != b"MZ":
        return None
    header = struct.unpack_from("<I", data, 0x3C)[0]
    return struct.unpack_from("<H", data, header + 4)[0]


def build_id(path):
    """The build id, as hexadecimal digits; None where the linker was not asked for one. Its first three
    parts are integers of Windows' byte order; gdb and objdump name them with the highest byte first."""
    found = re.search(rb"RSDS(.{16})\x01\0\0\0", path.read_bytes(), re.S)
    if not found:
        return None
    first, second, third, rest = struct.unpack("<IHH8s", found.group(1))
    return struct.pack(">IHH8s", first, second, third, rest).hex()


def split_one(path, symbols):
    """Moves the symbols of one program below symbols/.build-id, as gdb looks for them."""
    tool = TOOLS.get(machine_of(path))
    if tool is None:
        raise Problem(f"{path} is no program for Windows")
    identity = build_id(path)
    if identity is None:
        raise Problem(f"{path} has no build id: was it built with a release preset?")
    folder = symbols / ".build-id" / identity[:2]
    folder.mkdir(parents=True, exist_ok=True)
    kept = folder / f"{identity[2:]}.debug"
    for command in ([tool + "objcopy", "--only-keep-debug", path, kept],
                    [tool + "strip", "--strip-all", path],
                    [tool + "objcopy", f"--add-gnu-debuglink={kept}", path]):
        subprocess.run(command, check=True)
    return identity


def split(arguments):
    stage, symbols = arguments.stage, arguments.symbols
    lines = []
    for name, path in files_of(stage):
        if path.suffix in (".exe", ".dll"):
            lines.append(f"{split_one(path, symbols)}  {name}\n")
    if not lines:
        raise Problem(f"no program in {stage}")
    (symbols / "build-ids.txt").write_text("".join(lines))


# --- Documents. -------------------------------------------------------------------------------

def broken_links(stage):
    """A document of the release links only to what the release has."""
    for name, path in files_of(stage):
        if path.suffix == ".md":
            for link in re.findall(r"\]\(([^)#\s]+)[^)]*\)", path.read_text(encoding="utf-8")):
                if not re.match(r"[a-z]+:", link) and not (path.parent / link).exists():
                    yield f"{name} links to {link}"


def links(arguments):
    broken = list(broken_links(arguments.stage))
    if broken:
        raise Problem("\n  ".join(["these are not in the release:", *broken]))


# --- Archives. --------------------------------------------------------------------------------

def pack(folder, target, name):
    time = max(epoch(), datetime.datetime(1980, 1, 1, tzinfo=datetime.timezone.utc))
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for inside, path in files_of(folder):
            entry = zipfile.ZipInfo(f"{name}/{inside}", time.timetuple()[:6])
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = 3
            entry.external_attr = (0o100755 if path.suffix == ".exe" else 0o100644) << 16
            archive.writestr(entry, path.read_bytes())


def nsis(arguments):
    """What the installer writes and its uninstaller removes: file by file, so that a folder which
    holds something else stays."""
    install, remove, folders = [], [], set()
    for name, path in files_of(arguments.stage):
        at = name.replace("/", "\\")
        folder = at.rpartition("\\")[0]
        os.utime(path, (epoch().timestamp(),) * 2)
        into = f"$INSTDIR\\{folder}".rstrip("\\")
        for parent in [folder] * bool(folder):
            while parent:
                folders.add(parent)
                parent = parent.rpartition("\\")[0]
        if path.suffix in (".dll", ".exe"):  # may be open: a DLL in any process
            install.append(f'!insertmacro MoveAside "$INSTDIR\\{at}"\n')
            remove.append(f'!insertmacro MoveAside "$INSTDIR\\{at}"\n')
        else:
            remove.append(f'Delete "$INSTDIR\\{at}"\n')
        install.append(f'SetOutPath "{into}"\nFile "{path.resolve()}"\n')
    deepest_first = sorted(folders, key=lambda folder: (-folder.count("\\"), folder))
    remove += [f'RMDir "$INSTDIR\\{folder}"\n' for folder in deepest_first]
    arguments.folder.mkdir(parents=True, exist_ok=True)
    (arguments.folder / "install_files.nsh").write_text("".join(install))
    (arguments.folder / "remove_files.nsh").write_text("".join(remove))


def sums(arguments):
    lines = [f"{hashlib.sha256(path.read_bytes()).hexdigest()}  {name}\n"
             for name, path in files_of(arguments.folder) if name != "SHA256SUMS"]
    (arguments.folder / "SHA256SUMS").write_text("".join(lines))


# --- The bill of materials. -------------------------------------------------------------------

def spdx_file(number, name, path):
    data = path.read_bytes()
    return {
        "SPDXID": f"SPDXRef-File-{number}",
        "fileName": f"./{name}",
        "checksums": [{"algorithm": "SHA1", "checksumValue": hashlib.sha1(data).hexdigest()},
                      {"algorithm": "SHA256", "checksumValue": hashlib.sha256(data).hexdigest()}],
        "licenseConcluded": "NOASSERTION",
        "licenseInfoInFiles": ["NOASSERTION"],
        "copyrightText": "NOASSERTION",
    }


def spdx_component(number, component):
    package = component.package
    kind, name = ("npm", package.split("@")[0]) if "@" in package else ("deb/debian", package)
    version = third_party.version(component)
    if version is None:
        raise Problem(f"{package} is not installed: run scripts/setup.sh")
    locator = f"pkg:{kind}/{name}@{urllib.parse.quote(version, safe=':~')}"
    return {
        "SPDXID": f"SPDXRef-Component-{number}",
        "name": component.name,
        "versionInfo": version,
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
        "licenseConcluded": component.license,
        "licenseDeclared": component.license,
        "copyrightText": third_party.text_of(component),
        "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                          "referenceLocator": locator}],
    }


def verification_code(files):
    """The code of a package, as the standard defines it: over the sorted SHA-1 sums of its files."""
    together = "".join(sorted(f["checksums"][0]["checksumValue"] for f in files))
    return hashlib.sha1(together.encode()).hexdigest()


def used_components():
    """Of what this repository may use, what this release contains."""
    headers = (ROOT / "cmake/headers.cmake").read_text()
    for component in third_party.COMPONENTS:
        if component.name != "cpp-httplib" or "httplib" in headers:
            yield component


def sbom_of(stage, commit):
    version = project_version()
    files = [spdx_file(n, *entry) for n, entry in enumerate(files_of(stage), 1)]
    used = list(used_components())
    components = [spdx_component(n, c) for n, c in enumerate(used, 1)]
    product = {
        "SPDXID": "SPDXRef-vyr", "name": "vyr", "versionInfo": version,
        "downloadLocation": "NOASSERTION", "filesAnalyzed": True,
        "packageVerificationCode": {"packageVerificationCodeValue": verification_code(files)},
        "hasFiles": [f["SPDXID"] for f in files],
        "licenseConcluded": "NOASSERTION", "licenseDeclared": "NOASSERTION",
        "licenseInfoFromFiles": ["NOASSERTION"], "copyrightText": "NOASSERTION",
        "sourceInfo": f"built from commit {commit}",
    }
    relations = [("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-vyr")]
    relations += [("SPDXRef-vyr", "CONTAINS", f["SPDXID"]) for f in files]
    relations += [("SPDXRef-vyr", c.link, p["SPDXID"]) for c, p in zip(used, components)]
    return {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"vyr-{version}",
        "documentNamespace": f"urn:vyr:{version}:{commit}:{verification_code(files)}",
        "creationInfo": {"created": epoch().strftime("%Y-%m-%dT%H:%M:%SZ"),
                         "creators": ["Tool: vyr-release_parts.py"]},
        "packages": [product, *components], "files": files,
        "relationships": [{"spdxElementId": one, "relationshipType": how, "relatedSpdxElement": other}
                          for one, how, other in relations],
    }


SHA = {"SHA1": 40, "SHA256": 64}
DOCUMENT_KEYS = ("spdxVersion", "dataLicense", "SPDXID", "name", "documentNamespace", "creationInfo")
PACKAGE_KEYS = ("SPDXID", "name", "downloadLocation")
RELATIONS = {"DESCRIBES", "CONTAINS", "STATIC_LINK", "DYNAMIC_LINK", "DEPENDS_ON", "GENERATED_FROM"}
LICENSE = r"NONE|NOASSERTION|[A-Za-z0-9.+-]+( (WITH|AND|OR) [A-Za-z0-9.+-]+)*"


def wrong_in_head(document):
    for key in DOCUMENT_KEYS:
        if not document.get(key):
            yield f"the document has no {key}"
    if document.get("spdxVersion") != "SPDX-2.3" or document.get("dataLicense") != "CC0-1.0":
        yield "spdxVersion has to be SPDX-2.3, and dataLicense CC0-1.0"
    if document.get("SPDXID") != "SPDXRef-DOCUMENT":
        yield "the document's own SPDXID has to be SPDXRef-DOCUMENT"
    if not re.fullmatch(r"[a-z][a-z0-9+.-]*:[^#\s]+", document.get("documentNamespace", "")):
        yield "documentNamespace is not a URI without a fragment"
    creation = document.get("creationInfo") or {}
    if not re.fullmatch(r"\d{4}(-\d\d){2}T(\d\d:){2}\d\dZ", creation.get("created", "")):
        yield "creationInfo.created is not a time in UTC"
    creators = creation.get("creators") or [""]
    if not all(re.match(r"(Person|Organization|Tool): \S", creator) for creator in creators):
        yield "creationInfo.creators names no person, organization or tool"


def wrong_in_package(package, files):
    name = package.get("name", "a package")
    for key in PACKAGE_KEYS:
        if not package.get(key):
            yield f"{name} has no {key}"
    for key in ("licenseConcluded", "licenseDeclared"):
        if key in package and not re.fullmatch(LICENSE, package[key]):
            yield f"{name}: {key} is no licence expression: {package[key]}"
    code = (package.get("packageVerificationCode") or {}).get("packageVerificationCodeValue")
    if package.get("filesAnalyzed", True):
        own = [f for f in files if f["SPDXID"] in package.get("hasFiles", [])]
        if not own or code != verification_code(own):
            yield f"{name}: the verification code is not that of its files"
    elif code:
        yield f"{name} has a verification code, though its files were not analysed"


def wrong_in_file(file):
    name = file.get("fileName", "")
    if not name.startswith("./"):
        yield f"a file's name does not begin with ./: {name!r}"
    sums_of_file = {c.get("algorithm"): c.get("checksumValue", "") for c in file.get("checksums", [])}
    if "SHA1" not in sums_of_file:
        yield f"{name} has no SHA1"
    for algorithm, value in sums_of_file.items():
        if not re.fullmatch(rf"[0-9a-f]{{{SHA.get(algorithm, 0)}}}", value):
            yield f"{name}: {value!r} is no {algorithm}"


def wrong_in_relations(document, names):
    described = False
    for relation in document.get("relationships", []):
        one, other = relation.get("spdxElementId"), relation.get("relatedSpdxElement")
        how = relation.get("relationshipType")
        for name in (one, other):
            if name not in names:
                yield f"a relationship names {name}, which does not exist"
        if how not in RELATIONS:
            yield f"{how} is no relationship that is used here"
        described = described or (one, how) == ("SPDXRef-DOCUMENT", "DESCRIBES")
    if not described:
        yield "the document describes nothing"


def wrong_in(document):
    """What the standard requires and this document lacks."""
    packages, files = document.get("packages", []), document.get("files", [])
    yield from wrong_in_head(document)
    for package in packages:
        yield from wrong_in_package(package, files)
    for file in files:
        yield from wrong_in_file(file)
    names = [element.get("SPDXID", "") for element in [document, *packages, *files]]
    for name in sorted({name for name in names if names.count(name) > 1}):
        yield f"{name} names two elements"
    for name in names:
        if not re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", name):
            yield f"{name!r} is no SPDXID"
    yield from wrong_in_relations(document, names)


def check_sbom(arguments):
    wrong = list(wrong_in(json.loads(arguments.file.read_text())))
    if wrong:
        raise Problem("\n  ".join([f"{arguments.file} is not valid:", *wrong]))


def sbom(arguments):
    document = sbom_of(arguments.stage, arguments.commit)
    arguments.file.write_text(json.dumps(document, indent=1) + "\n")
    check_sbom(arguments)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter,
                                     usage=argparse.SUPPRESS)
    steps = parser.add_subparsers(dest="step", required=True)
    for step, names in (("version", ""), ("split", "stage symbols"), ("links", "stage"), ("zip", "folder file name"),
                        ("nsis", "stage folder"), ("sbom", "stage file commit"),
                        ("check-sbom", "file"), ("sums", "folder")):
        with_arguments = steps.add_parser(step)
        for name in names.split():
            with_arguments.add_argument(name, type=str if name in ("name", "commit") else pathlib.Path)
    arguments = parser.parse_args()
    run = {"version": lambda _: print(project_version()), "split": split, "nsis": nsis, "sums": sums,
           "links": links, "sbom": sbom, "check-sbom": check_sbom,
           "zip": lambda a: pack(a.folder, a.file, a.name)}[arguments.step]
    try:
        run(arguments)
    except (Problem, OSError, subprocess.CalledProcessError, ValueError) as problem:
        print(f"release_parts.py {arguments.step}: {problem}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
