# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Checks that each link in the HTML files of the folder argv[1] leads to a file there, and to an
anchor that the file has. Doxygen does not check links to files, images and made pages."""

import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, file):
        super().__init__()
        self.anchors, self.links = {""}, []
        self.feed(file.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        self.anchors |= {attributes.get("id"), attributes.get("name")}
        self.links += [attributes[name] for name in ("href", "src") if attributes.get(name)]


def broken_links(folder, pages):
    for file, page in pages.items():
        for link in page.links:
            url = urllib.parse.urlsplit(link)
            if url.scheme:
                continue
            target = folder / urllib.parse.unquote(url.path) if url.path else file
            if not target.is_file():
                yield file, link
            elif target in pages and url.fragment not in pages[target].anchors:
                yield file, link


def main():
    folder = pathlib.Path(sys.argv[1])
    pages = {file: Page(file) for file in sorted(folder.glob("*.html"))}
    broken = [f"{file.name}: {link}" for file, link in broken_links(folder, pages)]
    if broken or not pages:
        sys.exit("broken links:\n" + "\n".join(broken))
    print(f"reference: {len(pages)} pages, {sum(len(page.links) for page in pages.values())} links")


main()
