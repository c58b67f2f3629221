# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Compiles the code that documents and the comments of headers show: each block that begins with
```c or ```cpp, as C99 or C++11, with warnings as errors.

A block with a main function is a program: it is compiled and linked as it is. Any other block is a
fragment. It may use what the file --names declares, and is checked twice: as declarations, and as
the body of a function, behind its #include lines. One of the two must compile. The arguments
--flags and --libraries are lists that "|" separates."""

import argparse
import pathlib
import re
import subprocess
import sys
import tempfile

FENCE = re.compile(r"^\s*(?:///|\*)?\s*```(\w*)$")
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]


def blocks_of(file):
    """Yields language, line number and text of each block."""
    language, begin, lines = None, 0, []
    for number, line in enumerate(file.read_text(encoding="utf-8").splitlines(), 1):
        fence = FENCE.match(line)
        if fence and language is None:
            language, begin, lines = fence[1], number, []
        elif fence:
            if language in ("c", "cpp"):
                yield language, begin, "\n".join(lines)
            language = None
        elif language is not None:
            lines.append(line if file.suffix == ".md" else re.sub(r"^\s*(///|\*) ?", "", line))


class Compiler:
    def __init__(self, arguments, folder):
        self.arguments = arguments
        self.folder = pathlib.Path(folder)

    def fails(self, language, text, *options):
        """Returns the compiler's complaints, or nothing."""
        driver, standard = {"c": (self.arguments.cc, "c99"),
                            "cpp": (self.arguments.cxx, "c++11")}[language]
        source = self.folder / f"block.{language}"
        source.write_text(text + "\n", encoding="utf-8")
        command = [driver, f"-std={standard}", *WARNINGS, *self.arguments.flags.split("|")]
        result = subprocess.run([*command, str(source), *options],
                                capture_output=True, text=True, check=False)
        return result.stderr if result.returncode != 0 else ""

    def fails_as_program(self, language, text):
        return self.fails(language, text, "-o", str(self.folder / "program"),
                          *self.arguments.libraries.split("|"))

    def fails_as_fragment(self, language, line, text):
        includes = "\n".join(re.findall(r"^#include .*$", text, flags=re.M))
        body = re.sub(r"^#include .*$", "", text, flags=re.M)
        top = f'{includes}\n#include "{self.arguments.names}"\n'
        options = ["-fsyntax-only", "-Wno-unused"]
        declarations = self.fails(language, f"{top}#line {line + 1}\n{body}", *options)
        if not declarations:
            return ""
        function = "void fragment(void);\nvoid fragment(void) {\n"
        statements = self.fails(language, f"{top}{function}#line {line + 1}\n{body}\n}}", *options)
        return statements and f"as declarations:\n{declarations}as statements:\n{statements}"


def main():
    parser = argparse.ArgumentParser()
    for option in ("--cc", "--cxx", "--flags", "--libraries", "--names"):
        parser.add_argument(option, required=True)
    parser.add_argument("files", nargs="+", type=pathlib.Path)
    arguments = parser.parse_args()
    counts, failed = {True: 0, False: 0}, 0
    with tempfile.TemporaryDirectory() as folder:
        compiler = Compiler(arguments, folder)
        for file in arguments.files:
            for language, line, text in blocks_of(file):
                is_program = re.search(r"^int main\(", text, flags=re.M) is not None
                counts[is_program] += 1
                complaint = (compiler.fails_as_program(language, text) if is_program
                             else compiler.fails_as_fragment(language, line, text))
                if complaint:
                    failed += 1
                    print(f"{file}:{line}: this block does not compile\n{complaint}")
    print(f"{counts[True]} programs, {counts[False]} fragments, {failed} failed")
    sys.exit(failed > 0 or sum(counts.values()) == 0)


main()
