"""The DLL as a file: small, of the right kind, with two exports, version information and imports from
system DLLs only. It uses no function that would change state which it shares with its host, and next to
nothing of it runs while it is being loaded."""

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

# State of the process or the thread, in the C runtime and in the system, belongs to the host. Each of
# these functions changes some, and the reason says what the host would notice.
RANDOM = "the host's own rand() would return different numbers"
PLACE = "the result is in the runtime's static memory, where it may replace a result of the host"
LOCALE = "the host's texts and numbers would be formatted differently"
FLOAT = "the host's floating-point results would change"
HANDLER = "the host's own handler would be replaced"
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
# What the compiler's own libraries import all the same, and why it does no harm.
TERMINATE = "used for uncaught exceptions; none of ours leaves an entry"
OWN_ATEXIT = {"atexit"}  # the module's own, in its runtime: it runs when the module is unloaded
CARRIED = {
    "setlocale": "reads the locale (with null) for wide text in formats; our formats have none",
    "localtime": "used by localtime_s if the system's runtime is too old to have it",
    "_localtime32": "used by localtime_s if the system's runtime is too old to have it",
    "_localtime64": "used by localtime_s if the system's runtime is too old to have it",
    "strerror": "used for the format %m; our formats have none",
    "__setusermatherr": "used by a function that only the start of a program calls",
    "vfprintf": "used for the message about a failed relocation, when the module is loaded",
    **dict.fromkeys(["abort", "fputc", "fputs", "fwrite"], TERMINATE),
}

def says(content, key, value):
    """Whether a version resource has that entry: 16-bit texts, each terminated and padded."""
    key, value = (re.escape(text.encode("utf-16-le")) for text in (key, value))
    return re.search(key + rb"\0{2,6}" + value + rb"\0\0", content) is not None


def tool(kind, name, *arguments):
    command = [TOOLS[kind] + name, *map(str, arguments)]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def imported_names(text):
    """The imported names in the import tables; imports by ordinal have none."""
    imports = text[text.index("The Import Tables") : text.index("The Export Tables")]
    return set(re.findall(r"^\s+[0-9a-f]+\s+(?:<none>)?\s*\d+\s+(?:[0-9a-f]{4}\s+)?(\w+)\s*$", imports, re.M))


def names_asked_for(kind, archive):
    """The symbols that the product's own object files need, without C's name decoration."""
    prefix = "_" if kind == "x86" else ""
    undefined = rf"^\s+U (?:__imp_)?{prefix}(\w+?)(?:@\d+)?$"
    return set(re.findall(undefined, tool(kind, "nm", archive), re.M))


def check_guest(checks, kind, library, text):
    names = imported_names(text)
    checks.that({"CreateFileW", "WSAGetLastError", "memcpy"} <= names, "its imports can be read", str(names))
    for name in sorted(names & BANNED.keys() - CARRIED.keys()):
        checks.that(False, f"it imports {name}: {BANNED[name]}")
    for name in sorted(CARRIED.keys() - BANNED.keys()):
        checks.that(False, f"there is an exception for {name}, which is not banned")
    asked = names_asked_for(kind, library.parent.parent / "src" / "libvyr_core.a")
    checks.that({"memcpy", "CreateFileW", "rand_s"} <= asked, "our own symbols can be read", str(asked))
    for name in sorted(asked & BANNED.keys() - OWN_ATEXIT):
        checks.that(False, f"our own code uses {name}: {BANNED[name]}")


def check_loading(checks, kind, library):
    """While Windows loads the DLL it holds the loader's lock, under which nothing may wait, load a
    library or start a thread. Of ours only DllMain runs then, and it asks for one object of memory."""
    build = library.parent.parent / "src"
    for section in (".ctors", ".init_array"):
        found = [line for line in tool(kind, "objdump", "-h", build / "libvyr_core.a").splitlines()
                 if section in line]  # fmt: skip
        checks.equal(found, [], f"no object of ours is constructed at load ({section})")
    names = tool(kind, "nm", "-C", build / "libvyr_core.a")
    checks.that("WSPStartup" in names, "the names in our library can be read")
    checks.equal(re.findall(r".*_GLOBAL__sub_I.*", names), [], "no function of ours runs at load")
    entry = build / "CMakeFiles" / "vyr_lsp.dir" / "start" / "dll_main.cpp.obj"
    called = re.findall(r"^\s+U (.*)$", tool(kind, "nm", "-C", entry), re.M)
    checks.equal(called, ["common::GetProcessInfo()"], "what DllMain calls")


def main():
    arguments = support.parse_arguments()
    checks = support.Checks()
    kind = arguments.kind
    library = support.Runner(arguments).library
    wanted = FORMATS[kind]
    checks.that(f"file format {wanted}\n" in tool(kind, "objdump", "-f", library), f"the format is {wanted}")
    content = library.read_bytes()
    for key, value in (("OriginalFilename", library.name), ("FileVersion", support.project_version())):
        checks.that(says(content, key, value), f"its version resource says {key} {value}")
    text = tool(kind, "objdump", "-p", library)
    imports = {name.lower() for name in re.findall(r"DLL Name: (\S+)", text)}
    checks.that(imports, "it imports something")
    checks.equal(imports - SYSTEM_LIBRARIES, set(), "it imports system DLLs only")
    check_guest(checks, kind, library, text)
    check_loading(checks, kind, library)
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
