"""What the DLL is made of: a small 32-bit module with two exports that needs system DLLs only."""

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


def objdump(*arguments):
    tool = "i686-w64-mingw32-objdump"
    return subprocess.run([tool, *map(str, arguments)], check=True, capture_output=True, text=True).stdout


def main():
    arguments = support.parse_arguments()
    checks = support.Checks()
    library = arguments.bin / "vyr_lsp.dll"
    checks.that("pei-i386" in objdump("-f", library), "the format is pei-i386")
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
        subprocess.run(["i686-w64-mingw32-strip", stripped], check=True)
        size = os.path.getsize(stripped)
        print(f"stripped size: {size} bytes")
        checks.that(size < LARGEST_STRIPPED, "it is under 1 MB stripped", str(size))
    checks.end()


if __name__ == "__main__":
    main()
