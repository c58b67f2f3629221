# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Checks, in the XML files of the folder argv[1], what Doxygen does not: that each function's
comment says which threads may call it, that the comment of each pointer and text says who owns it,
and that each enumerator has a comment."""

import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

# Words that say who owns what a pointer, a reference or a handle leads to.
OWNERSHIP = re.compile(
    r"\b(owns?|owned|ownership|cop(y|ies|ied)|kept|keeps?|frees?|freed|destroys?|receives|caller's|"
    r"a handle|valid until|not (be used|use it) afterwards)\b|^ignored$", re.I)


def text_of(node):
    return " ".join("".join(node.itertext()).split()) if node is not None else ""


def comment_of(member):
    return " ".join(text_of(member.find(f"{kind}description")) for kind in ("brief", "detailed"))


def parameter_comments(member):
    for item in member.iter("parameteritem"):
        for name in item.iter("parametername"):
            yield name.text, text_of(item.find("parameterdescription"))


def carries_memory(parameter):
    kind = text_of(parameter.find("type"))
    return kind.endswith(("*", "&", "_h")) or "std::string" in kind


def findings_in(member):
    comment = comment_of(member)
    if member.get("kind") == "function" and "Threads:" not in comment:
        yield "does not say which threads may call it"
    comments = dict(parameter_comments(member))
    for parameter in member.findall("param"):
        name = text_of(parameter.find("declname"))
        if carries_memory(parameter) and not OWNERSHIP.search(comments.get(name, "")):
            yield f"does not say who owns {name}"
    for value in member.findall("enumvalue"):
        if not comment_of(value).strip():
            yield f"does not describe {text_of(value.find('name'))}"


def main():
    members = {}
    for file in sorted(pathlib.Path(sys.argv[1]).glob("*.xml")):
        for member in ElementTree.parse(file).iter("memberdef"):
            if member.get("prot") == "public":
                members[member.get("id")] = member
    findings = [f"{member.find('location').get('file')}:{member.find('location').get('line')}: "
                f"{text_of(member.find('name'))} {finding}"
                for member in members.values() for finding in findings_in(member)]
    functions = sum(member.get("kind") == "function" for member in members.values())
    if findings or not functions:
        sys.exit("\n".join(findings) or "no function found")
    print(f"reference: the comments of {functions} functions are complete")


main()
