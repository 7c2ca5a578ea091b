"""What the DLL is made of: a small module of its kind, with two exports, that needs system DLLs only
and says what it is."""

import os
import re
import shutil
import subprocess
import tempfile

import support

SYSTEM_LIBRARIES = {
    "kernel32.dll", "ntdll.dll", "ws2_32.dll", "msvcrt.dll", "ucrtbase.dll", "shlwapi.dll",
    "rpcrt4.dll", "advapi32.dll", "user32.dll", "mswsock.dll",
}  # fmt: skip
LARGEST_STRIPPED = 1_000_000
TOOLS = {"x86": "i686-w64-mingw32-", "x64": "x86_64-w64-mingw32-"}
FORMATS = {"x86": "pei-i386", "x64": "pei-x86-64"}


def says(content, key, value):
    """Whether a version resource has that line: texts of 16-bit characters, each ended and padded."""
    key, value = (re.escape(text.encode("utf-16-le")) for text in (key, value))
    return re.search(key + rb"\0{2,6}" + value + rb"\0\0", content) is not None


def main():
    arguments = support.parse_arguments()
    checks = support.Checks()
    tools = TOOLS[arguments.kind]

    def objdump(*words):
        command = [tools + "objdump", *map(str, words)]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout

    library = support.Runner(arguments).library
    wanted = FORMATS[arguments.kind]
    checks.that(f"file format {wanted}\n" in objdump("-f", library), f"the format is {wanted}")
    content = library.read_bytes()
    for key, value in (("OriginalFilename", library.name), ("FileVersion", "0.1.0")):
        checks.that(says(content, key, value), f"its version resource says {key} {value}")
    text = objdump("-p", library)
    imports = {name.lower() for name in re.findall(r"DLL Name: (\S+)", text)}
    checks.that(imports, "it imports something")
    checks.equal(imports - SYSTEM_LIBRARIES, set(), "it imports system DLLs only")
    exported = text[text.index("[Ordinal/Name Pointer] Table") :]
    names = re.findall(r"^\s+\[\s*\d+\](?: \+base\[\s*\d+\])?\s+(?:[0-9a-f]{4}\s+)?(\S+)$", exported, re.M)
    checks.equal(sorted(names), ["GetLspGuid", "WSPStartup"], "it exports exactly two names")
    with tempfile.TemporaryDirectory() as folder:
        stripped = os.path.join(folder, "stripped.dll")
        shutil.copy(library, stripped)
        subprocess.run([tools + "strip", stripped], check=True)
        size = os.path.getsize(stripped)
        print(f"stripped size: {size} bytes")
        checks.that(size < LARGEST_STRIPPED, "it is under 1 MB stripped", str(size))
    checks.end()


if __name__ == "__main__":
    main()
