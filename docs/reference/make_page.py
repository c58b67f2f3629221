# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Doxygen's filter for documents: prints the Markdown file argv[1], whose links work on GitHub, so
that they work in the reference.

Doxygen knows no anchors of headings, and no links to files that are not part of the reference. Each
heading therefore gets a label, made of the document's name and of GitHub's anchor. Links to
documents become references to these labels, which Doxygen checks. Links to code become its path.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
# Pages that Doxygen makes of folders and files that documents link to.
MADE_PAGES = {
    "include/tallyra": "files.html",
    "Platform/include": "files.html",
    "examples/player": "examples.html",
    "examples/gst-player/gst-player.c": "examples.html",
}


def page_label(document):
    return "mainpage" if document.name == "README.md" else f"page-{document.stem.lower()}"


def heading_label(document, anchor):
    return f"{page_label(document)}-{anchor}"


def github_anchor(heading):
    return re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")


def rewrite_link(document, match):
    bang, text, target = match.groups()
    if re.match(r"[a-z]+:", target):
        return match[0]
    path, _, anchor = target.partition("#")
    file = (document.parent / path).resolve() if path else document
    if not file.exists():
        return f"@ref missing-{file.name}"  # Doxygen reports it
    name = file.relative_to(ROOT).as_posix()
    if bang:
        return f"![{text}]({file.name})"
    if file.suffix == ".md":
        label = heading_label(file, anchor) if anchor else page_label(file)
        # A reference has no room for markup and line breaks.
        return f'@ref {label} "{" ".join(text.replace("`", "").split())}"'
    if name in MADE_PAGES:
        return f"[{text}]({MADE_PAGES[name]})"
    return f"`{name}`" if name.endswith(text.strip("`")) else f"{text} (`{name}`)"


def rewrite_prose(document, prose):
    prose = re.sub(r"<!--.*?-->\n?", "", prose, flags=re.S)
    prose = re.sub(r'<a id="(.+?)"></a>',
                   lambda m: f"@anchor {heading_label(document, m[1])} ", prose)
    # Doxygen takes a quote for the end of code that a single backtick begins.
    prose = re.sub(r"`([^`]+)`", lambda m: f"`{m[0]}`" if "'" in m[1] else m[0], prose)
    prose = re.sub(r"(!?)\[([^\]]+)\]\(([^)\s]+)\)",
                   lambda m: rewrite_link(document, m), prose)
    prose = re.sub(r"^# (.+)$",
                   lambda m: f"# {m[1]} {{#{page_label(document)}}}", prose, flags=re.M)
    return re.sub(r"^(##+) (.+)$",
                  lambda m: f"{m[1]} {m[2]} {{#{heading_label(document, github_anchor(m[2]))}}}",
                  prose, flags=re.M)


def page_of(document):
    # Odd parts are blocks of code.
    parts = re.split(r"(^```.*?^```$)", document.read_text(encoding="utf-8"), flags=re.M | re.S)
    parts[::2] = [rewrite_prose(document, part) for part in parts[::2]]
    return "".join(parts).lstrip()


def main():
    sys.stdout.reconfigure(encoding="utf-8")
    try:
        print(page_of(pathlib.Path(sys.argv[1]).resolve()))
    except Exception:
        print("@ref the-filter-failed")  # Doxygen reports this, and not the status of a filter
        raise


main()
