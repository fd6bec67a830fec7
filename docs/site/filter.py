#!/usr/bin/env python3
"""filter.py HEADER: prints the header for Doxygen, its plain comments turned into documentation.
filter.py PAGE.md: prints the page, its headings with names that Doxygen knows, links to them too.

A comment documents the declarations below it, up to a blank line or another comment; one behind a
declaration, on the same line, documents that one. The comment that opens the file documents the
file; its first paragraph is also what documents a class without a comment, which is the one that the
file is about. What is internal is left out. What only divides a header is dropped, and so is what makes the compiler's attributes, which
Doxygen would take for names.
"""

import pathlib
import re
import sys

DIVIDER = re.compile(r"// --- .* -+$")
TRAILING = re.compile(r"(\S)\s{2,}// ")
SCOPE = re.compile(r"(template <.*> )?(class|struct|enum|union|namespace|extern)\b[^;()]*\{$")
NAMES_NOTHING = re.compile(r"(public|protected|private):$|friend |namespace |extern \"C\" \{|\}")
ATTRIBUTES = re.compile(
    r"\b(ZO_API|ZO_BASE_API|ZO_INTERNAL|ZO_REENTRANT|ZO_SCOPED_CAPABILITY|ZO_NOT_ANALYSED)\b ?"
    r"| ?\b(ZO_CAPABILITY|ZO_ACQUIRE|ZO_ACQUIRE_SHARED|ZO_RELEASE|ZO_RELEASE_SHARED|ZO_REQUIRES"
    r"|ZO_TRY_ACQUIRE|ZO_RETURN_CAPABILITY|ZO_GUARDED_BY)\([^()]*(\([^()]*\))?[^()]*\)"
)


class Filter:
    def __init__(self, subject):
        self.comment = []  # that documents what follows
        self.depth = 0  # of braces and parentheses inside the declaration
        self.declared = False  # the comment has been printed
        self.subject = subject
        self.dropped = False  # the declaration is internal

    def line(self, line):
        stripped = line.strip()
        if self.depth == 0 and stripped.startswith("//"):
            if self.declared:
                self.comment, self.declared = [], False
            if not DIVIDER.match(stripped):
                self.comment.append(line.replace("//", "///", 1))
            return
        if self.depth == 0:
            if stripped.startswith("#define"):
                print("\n".join(self.comment))
                self.declared = True
            elif stripped.startswith("#"):
                pass
            elif not stripped or NAMES_NOTHING.match(stripped):
                self.comment, self.declared = [], False
            else:
                self.dropped = "ZO_INTERNAL" in stripped
                about = SCOPE.match(ATTRIBUTES.sub("", stripped)) and not self.comment
                print("\n".join(self.subject if about else self.comment))
                self.declared = True
        if stripped.startswith("#"):
            print(line)
            return
        code = ATTRIBUTES.sub("", line).rstrip()
        if not self.dropped:
            print(TRAILING.sub(r"\1  ///< ", code, count=1) if self.depth == 0 else code)
        if SCOPE.match(code.strip()):
            self.comment, self.declared = [], False
            return
        code = code.split("// ")[0]
        self.depth += sum(code.count(c) for c in "({") - sum(code.count(c) for c in ")}")
        self.depth = max(self.depth, 0)  # the end of a scope


def slug(page, heading):
    """The name of a heading, as hosts of such pages make it, made one of all pages."""
    words = re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")
    return f"{pathlib.Path(page).stem.lower()}-{words}"


def page(path):
    is_code = False
    for line in pathlib.Path(path).read_text().splitlines():
        is_code ^= line.startswith("```")
        if not is_code:
            if found := re.match(r"##+ (.*)", line):
                line += f" {{#{slug(path, found[1])}}}"
            line = re.sub(r"\]\(([\w/.-]*)#([\w-]+)\)",
                          lambda link: f"](#{slug(link[1] or path, link[2])})", line)
        print(line)


def header(path):
    lines = path.read_text().splitlines()
    opening = next(i for i, line in enumerate(lines) if not line.startswith("//"))
    print("/// \\file")
    print("\n".join(line.replace("//", "///", 1) for line in lines[:opening]))
    paragraph = next((i for i, line in enumerate(lines) if line in ("//", "")), opening)
    rest = Filter([line.replace("//", "///", 1) for line in lines[:paragraph]])
    for line in lines[opening:]:
        rest.line(line)


name = pathlib.Path(sys.argv[1])
page(name) if name.suffix == ".md" else header(name)
