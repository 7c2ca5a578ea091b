"""Constructs and words that are not allowed in certain files, each with the reason."""
import dataclasses
import re

import cpp
from tree import Finding

CODE, LITERALS, TEXT = "code", "code_and_literals", "text"


@dataclasses.dataclass(frozen=True)
class Ban:
    pattern: str
    reason: str
    where: str = CODE  # which part of a file is searched
    folders: tuple = ("src/",)
    except_for: tuple = ()  # (path, text on the line): deliberate uses
    suffixes: tuple = (".cpp", ".h")
    flags: int = 0


THIS = "tests/tidy/"

BANS = [
    Ban(r"^[ \t]*#[ \t]*(?:if|ifdef|ifndef|elif)\b.*\b(?:_WIN32|_WIN64|WIN32|__CYGWIN__|__linux__"
        r"|__unix__|__APPLE__|__MINGW\w*|_MSC_VER|__GNUC__|__clang__|__x86_64__|__i386__)\b.*",
        "the product knows one platform; other platforms are the port's job",
        except_for=(("src/common/log.h", "__MINGW_PRINTF_FORMAT"),), flags=re.MULTILINE),
    Ban(r"\bstd::(?:recursive_|timed_|shared_|recursive_timed_)?mutex\b"
        r"|\bstd::(?:j?thread|condition_variable\w*|async|future|promise|\w*_semaphore|latch"
        r"|barrier|lock_guard|unique_lock|scoped_lock|call_once|this_thread)\b",
        "missing in the runtime that the DLL is built with: use the Win32 calls"),
    Ban(r"\bstd::filesystem\b", "does not handle backslashes on every platform: use common/paths.h"),
    Ban(r"\bstd::(?:cout|cerr|clog|cin|[io]?[f]?stream|endl)\b|\bprintf\s*\(|\bputs\s*\(",
        "a library in a game has no console: use LSP_LOG"),
    Ban(r"#[ \t]*include[ \t]*<(?:mutex|thread|condition_variable|future|shared_mutex|filesystem"
        r"|iostream|fstream|semaphore|latch|barrier|stop_token)>",
        "the runtime of the DLL does not have it, or must not include it"),
    # Objects that exist until the process ends are created and never freed; all others are owned.
    Ban(r"^(?!.*\bstatic\b)(?!.*(?:\.reset|_ptr<[^;]*>)\s*[({]\s*new\b)(?!.*\bnew\s*\(\s*\w+\s*\)"
        r")(?!\s*#).*\bnew\b.*",
        "a naked new: let a type own it", flags=re.MULTILINE),
    Ban(r"(?<!=)(?<!= )(?<!operator )\bdelete\b", "a naked delete: let a type own it"),
    Ban(r"\b(?:malloc|calloc|realloc|free)\s*\(", "let a type own the memory",
        except_for=(("src/stream/block_buffer.h", "std::free(bytes)"),
                    ("src/stream/block_buffer.cpp", "data(static_cast<u8*>(std::calloc("))),
    Ban(r"%[-0-9.*]*ws", "is printed literally by this runtime: convert the text and print %s",
        where=LITERALS),
    # _snprintf does not terminate a text that does not fit; snprintf does.
    Ban(r"\b(?:_snw?printf|v?sprintf|strcpy|strcat|gets|strtok)\s*\(",
        "may write past its buffer"),
    Ban(r"#[ \t]*include[ \t]*<CLI/.*", "takes seconds in each unit: use devkit/command_line.h", folders=("",),
        except_for=(("devkit/command_line.cpp", "<CLI/CLI.hpp>"),)),
    Ban(r"\busing\s+namespace\s+std\s*;", "names its names", folders=("",)),
    Ban(r"\b(?:TODO|FIXME|XXX|HACK)\b", "do it, or describe what is missing", where=TEXT,
        folders=("",), suffixes=("",)),
    # Readers of this tree have nothing but the tree.
    Ban(r"\bPart\s+[0-9]+\.[0-9]+|\bspec(?:ification)?s?\b(?!\.|\()|(?<![\w-])issue\s+#?[0-9]+"
        r"|(?<![\w./$}])/(?:work|root|home|Users)/[A-Za-z.]",
        "refers to something outside this tree", where=TEXT, folders=("",), suffixes=("",),
        flags=re.IGNORECASE),
]


def applies(ban, path):
    if path.startswith(THIS) or not path.endswith(ban.suffixes):
        return False
    return path.startswith(ban.folders)


def check_ban(tree, path, ban):
    searched = getattr(tree, ban.where)(path)
    lines = tree.text(path).split("\n")
    for match in re.finditer(ban.pattern, searched, ban.flags):
        line = cpp.line_of(searched, match.start())
        if any(path == p and t in lines[line - 1] for p, t in ban.except_for):
            continue
        yield Finding(path, line, f"'{' '.join(match[0].split())}': {ban.reason}")


def check(tree):
    for path in tree.paths:
        for ban in BANS:
            if applies(ban, path):
                yield path, list(check_ban(tree, path, ban))
