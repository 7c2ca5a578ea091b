"""Runs examples/serve_one_game.py outside Wine, as if it were inside: what it asks of Windows, a Windows program does
for it (probes/windows_calls.cpp), and the memory that it maps is the same that a game maps.

usage: python_client.py WINDOWS_CALLS.EXE FOLDER ARGUMENTS OF THE EXAMPLE…

FOLDER is for the files behind the mappings. There is no Python for Windows on the machines that run the tests.
"""

import contextlib
import ctypes
import mmap
import pathlib
import subprocess
import sys

import support

sys.path.insert(0, str(support.ROOT / "examples"))
import serve_one_game as example  # noqa: E402

DESCRIPTOR = 0x5DD1  # stands for the address of the one security descriptor


class Windows:
    def __init__(self, program, folder):
        self.folder = folder
        self.process = subprocess.Popen([support.WINE, program], text=True, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, bufsize=1)  # fmt: skip
        self.error, self.sddl = 0, ""
        self.files, self.maps = {}, []

    def ask(self, *words):
        self.process.stdin.write("|".join(map(str, words)) + "\n")
        answer = self.process.stdout.readline().split()
        if len(answer) != 2:
            raise SystemExit("the program that makes the Windows calls has ended")
        self.error = int(answer[1])
        return int(answer[0])

    def sddl_of(self, attributes):
        given = attributes._obj
        if (given.size, given.descriptor, given.inherit) != (ctypes.sizeof(given), DESCRIPTOR, 0):
            raise ValueError("not the security attributes that were made")
        return self.sddl

    def ConvertStringSecurityDescriptorToSecurityDescriptorW(self, text, revision, made, size):
        if revision != 1 or size is not None:
            raise ValueError("SDDL_REVISION_1 and no size are needed")
        self.sddl, made._obj.value = text, DESCRIPTOR
        return 1

    def CreateMutexA(self, attributes, owned, name):
        if owned:
            raise ValueError("a mutex that is owned from the beginning")
        return self.ask("mutex", self.sddl_of(attributes), name.decode())

    def CreateFileMappingA(self, file, attributes, protection, high, size, name):
        if (ctypes.c_ssize_t(file.value).value, protection, high) != (-1, example.PAGE_READWRITE, 0):
            raise ValueError("not memory that may be read and written")
        path = self.folder / name.decode()
        handle = self.ask("mapping", self.sddl_of(attributes), size, name.decode(), support.windows_path(path))
        self.files[handle] = path
        return handle

    def MapViewOfFile(self, handle, access, high, low, size):
        if (access, high, low) != (example.FILE_MAP_ALL_ACCESS, 0, 0):
            raise ValueError("not the whole mapping")
        with open(self.files[handle], "r+b") as file:
            self.maps.append(mmap.mmap(file.fileno(), size))
        return ctypes.addressof(ctypes.c_char.from_buffer(self.maps[-1]))

    def WaitForSingleObject(self, handle, milliseconds):
        return self.ask("wait", handle, milliseconds)

    def ReleaseMutex(self, handle):
        return self.ask("release", handle)


class Function:
    """Takes what the real one would take, as far as its declared types tell."""

    def __init__(self, made):
        self.made, self.argtypes, self.restype = made, None, None

    def __call__(self, *arguments):
        if len(arguments) != len(self.argtypes):
            raise TypeError(f"{self.made.__name__} takes {len(self.argtypes)} arguments")
        for kind, argument in zip(self.argtypes, arguments):
            kind.from_param(argument)
        return self.made(*arguments)


class Library:
    def __init__(self, windows):
        self.windows, self.functions = windows, {}

    def __getattr__(self, name):
        return self.functions.setdefault(name, Function(getattr(self.windows, name)))


def main():
    program, folder, *arguments = sys.argv[1:]
    windows = Windows(program, pathlib.Path(folder))
    ctypes.WinDLL = lambda name, use_last_error=False: Library(windows)
    ctypes.get_last_error = lambda: windows.error
    sys.argv = ["serve_one_game.py", *arguments]
    example.main()
    with contextlib.suppress(OSError):
        windows.process.stdin.close()
    windows.process.wait(support.LONGEST_RUN_S)


if __name__ == "__main__":
    main()
