"""Pages with every line of src/: which ran, which did not, and why."""

import html
import pathlib

import document

STYLE = """body{font:15px/1.5 system-ui,sans-serif;max-width:75em;margin:2em auto;padding:0 1em}
table{border-collapse:collapse}td,th{padding:.1em .8em;text-align:right}td:first-child,th:first-child{text-align:left}
pre{line-height:1.35}pre span{display:block}.no{background:#fbb}.part{background:#fe9}.why{background:#ddd}
i{color:#555}small{color:#666;display:inline-block;width:10em;text-align:right;padding-right:1em}
@media(prefers-color-scheme:dark){body{background:#111;color:#ddd}a{color:#8bf}i,small{color:#999}
.no{background:#611}.part{background:#540}.why{background:#333}}"""


def document_of(title, body):
    return (f"<!doctype html><html lang=en><meta charset=utf-8><title>{html.escape(title)}</title>"
            f"<style>{STYLE}</style><h1>{html.escape(title)}</h1>{body}</html>\n")  # fmt: skip


def name_of(path):
    return path.replace("/", "_") + ".html"


def table(title, rows):
    head = f"<tr><th>{title}<th>lines<th>not run<th>%<th>branches<th>not taken<th>%"
    return "<table>" + head + "".join(
        f"<tr><td>{name}<td>{s['lines']}<td>{s['lines'] - s['lines_run']}<td>{s['line_share']:.2f}"
        f"<td>{s['branches']}<td>{s['branches'] - s['branches_taken']}<td>{s['branch_share']:.2f}"
        for name, s in rows) + "</table>"  # fmt: skip


def source(path, file, verdict):
    out = []
    for number, text in enumerate(file.source, 1):
        count = file.lines.get(number)
        notes = file.notes(number)
        reason = verdict.reasons.get((path, number))
        kind = "why" if reason else "no" if count == 0 else "part" if notes else ""
        said = reason or "; ".join(notes)
        out.append(f"<span id=L{number} class='{kind}'><small>{'' if count is None else count} | {number}</small>"
                   f"{html.escape(text)}{'   <i>' + html.escape(said) + '</i>' if said else ''}</span>")  # fmt: skip
    return "<p><a href=index.html>all files</a></p><pre>" + "".join(out) + "</pre>"


def write(folder, files, verdict):
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    for path, file in files.items():
        (folder / name_of(path)).write_text(document_of(path, source(path, file, verdict)))
    links = [(f"<a href='{name_of(path)}'>{path}</a>", document.add_up([file])) for path, file in files.items()]
    links.sort(key=lambda link: (link[1]["lines_run"] - link[1]["lines"],
                                 link[1]["branches_taken"] - link[1]["branches"]))  # fmt: skip
    missing = "".join(f"<li><a href='{name_of(f)}#L{n}'>{f}:{n}</a> <code>{html.escape(text)}</code>"
                      for f, n, _, text in verdict.missing)  # fmt: skip
    stale = "".join(f"<li>{html.escape(e.file)}: {why}: <code>{html.escape(e.text)}</code>" for e, why in verdict.stale)
    total = [("all", document.add_up(list(files.values())))]
    body = ("<p>Red never ran. Grey never ran for the reason that stands there. Yellow ran in part.</p>"
            + table("folder", [*document.by_folder(files).items(), *total])
            + (f"<h2>Lines that never ran and are not on the list</h2><ul>{missing}</ul>" if missing else "")
            + (f"<h2>Stale entries of the list</h2><ul>{stale}</ul>" if stale else "")
            + "<h2>Files</h2>" + table("file", links))  # fmt: skip
    (folder / "index.html").write_text(document_of("Coverage of src/", body))
