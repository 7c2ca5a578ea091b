"""What the DLL is made of: a small module of its kind, with two exports, that needs system DLLs only,
says what it is, and asks the system for nothing that would change what it shares with its host."""

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

# What the C runtime and the system keep for the process or the thread is the host's. Each of these
# changes it, and the reason says what the host would notice.
RANDOM = "the host's own rand() would go on with other numbers"
PLACE = "the result stands in a place of the runtime's, where the host's last result may stand"
LOCALE = "the host's texts and numbers would be read and written otherwise"
FLOAT = "the host's floating-point results would change"
HANDLER = "the host's own handler would be gone"
SETTING = "a setting of the host's process would change"
END = "the host would end"
OUTPUT = "the host's own output would be mixed with ours"
BANNED = {
    **dict.fromkeys(["rand", "srand"], RANDOM),
    **dict.fromkeys(["strtok", "wcstok", "_mbstok", "asctime", "ctime", "_ctime32", "_ctime64", "gmtime",
                     "_gmtime32", "_gmtime64", "localtime", "_localtime32", "_localtime64", "strerror",
                     "_strerror", "tmpnam", "getenv"], PLACE),
    **dict.fromkeys(["setlocale", "_wsetlocale", "_configthreadlocale", "_setmbcp", "SetThreadLocale"], LOCALE),
    **dict.fromkeys(["_controlfp", "_controlfp_s", "_control87", "__control87_2", "_fpreset", "_clear87",
                     "_clearfp", "fesetenv", "fesetround"], FLOAT),
    **dict.fromkeys(["signal", "atexit", "_set_new_handler", "_set_new_mode", "_set_se_translator",
                     "_set_invalid_parameter_handler", "_set_purecall_handler", "__setusermatherr",
                     "set_terminate", "SetUnhandledExceptionFilter", "AddVectoredExceptionHandler",
                     "SetConsoleCtrlHandler"], HANDLER),
    **dict.fromkeys(["_putenv", "_wputenv", "_putenv_s", "_tzset", "_umask", "_setmode", "_chdir",
                     "SetEnvironmentVariableA", "SetEnvironmentVariableW", "SetErrorMode",
                     "SetThreadErrorMode", "SetCurrentDirectoryA", "SetCurrentDirectoryW",
                     "SetDllDirectoryA", "SetDllDirectoryW", "SetPriorityClass", "timeBeginPeriod"], SETTING),
    **dict.fromkeys(["abort", "exit", "_exit", "ExitProcess", "TerminateProcess", "raise"], END),
    **dict.fromkeys(["printf", "puts", "fputc", "fputs", "fwrite", "fprintf", "vfprintf", "vprintf",
                     "AllocConsole"], OUTPUT),
}  # fmt: skip
# What the compiler's own libraries bring in all the same, and why it does no harm.
TERMINATE = "of the handler of exceptions that nobody catches: none of ours leaves an entry"
OWN_ATEXIT = {"atexit"}  # a module's own, of its runtime: it runs as the module goes
CARRIED = {
    "setlocale": "asks which locale there is (with null), for wide text in formats; ours has none",
    "localtime": "of localtime_s where the system's runtime is too old to have it",
    "_localtime32": "of localtime_s where the system's runtime is too old to have it",
    "_localtime64": "of localtime_s where the system's runtime is too old to have it",
    "strerror": "of the format %m; ours has none",
    "__setusermatherr": "of a function that only a program's own start calls",
    "vfprintf": "of the message of a relocation that fails, when the module is loaded",
    **dict.fromkeys(["abort", "fputc", "fputs", "fwrite"], TERMINATE),
}

def says(content, key, value):
    """Whether a version resource has that line: texts of 16-bit characters, each ended and padded."""
    key, value = (re.escape(text.encode("utf-16-le")) for text in (key, value))
    return re.search(key + rb"\0{2,6}" + value + rb"\0\0", content) is not None


def tool(kind, name, *arguments):
    command = [TOOLS[kind] + name, *map(str, arguments)]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def imported_names(text):
    """By name, from the import tables; imports by number alone have none."""
    imports = text[text.index("The Import Tables") : text.index("The Export Tables")]
    return set(re.findall(r"^\s+[0-9a-f]+\s+(?:<none>)?\s*\d+\s+(?:[0-9a-f]{4}\s+)?(\w+)\s*$", imports, re.M))


def names_asked_for(kind, archive):
    """The symbols that the product's own objects need, without C's name decoration."""
    prefix = "_" if kind == "x86" else ""
    undefined = rf"^\s+U (?:__imp_)?{prefix}(\w+?)(?:@\d+)?$"
    return set(re.findall(undefined, tool(kind, "nm", archive), re.M))


def check_guest(checks, kind, library, text):
    names = imported_names(text)
    checks.that({"CreateFileW", "WSAGetLastError", "memcpy"} <= names, "its imports can be read", str(names))
    for name in sorted(names & BANNED.keys() - CARRIED.keys()):
        checks.that(False, f"it imports {name}: {BANNED[name]}")
    for name in sorted(CARRIED.keys() - BANNED.keys()):
        checks.that(False, f"{name} is excused from a ban that there is not")
    asked = names_asked_for(kind, library.parent.parent / "src" / "libvyr_core.a")
    checks.that({"memcpy", "CreateFileW", "rand_s"} <= asked, "what it asks for can be read", str(asked))
    for name in sorted(asked & BANNED.keys() - OWN_ATEXIT):
        checks.that(False, f"our own code asks for {name}: {BANNED[name]}")


def main():
    arguments = support.parse_arguments()
    checks = support.Checks()
    kind = arguments.kind
    library = support.Runner(arguments).library
    wanted = FORMATS[kind]
    checks.that(f"file format {wanted}\n" in tool(kind, "objdump", "-f", library), f"the format is {wanted}")
    content = library.read_bytes()
    for key, value in (("OriginalFilename", library.name), ("FileVersion", "0.1.0")):
        checks.that(says(content, key, value), f"its version resource says {key} {value}")
    text = tool(kind, "objdump", "-p", library)
    imports = {name.lower() for name in re.findall(r"DLL Name: (\S+)", text)}
    checks.that(imports, "it imports something")
    checks.equal(imports - SYSTEM_LIBRARIES, set(), "it imports system DLLs only")
    check_guest(checks, kind, library, text)
    exported = text[text.index("[Ordinal/Name Pointer] Table") :]
    names = re.findall(r"^\s+\[\s*\d+\](?: \+base\[\s*\d+\])?\s+(?:[0-9a-f]{4}\s+)?(\S+)$", exported, re.M)
    checks.equal(sorted(names), ["GetLspGuid", "WSPStartup"], "it exports exactly two names")
    with tempfile.TemporaryDirectory() as folder:
        stripped = os.path.join(folder, "stripped.dll")
        shutil.copy(library, stripped)
        tool(kind, "strip", stripped)
        size = os.path.getsize(stripped)
        print(f"stripped size: {size} bytes")
        checks.that(size < LARGEST_STRIPPED, "it is under 1 MB stripped", str(size))
    checks.end()


if __name__ == "__main__":
    main()
