"""Writes C++ with the comment above each function of the headers: the module's docstrings.

    python3 tools/docstrings.py OUT.cpp HEADER...

A comment counts if its lines begin with "///" and the declaration follows at once; of overloads
the first is taken. `null` and `nullptr` become None, as Python has it.
"""
import re
import sys

DECLARATION = re.compile(r"((?:^///.*\n)+)^[\w:<>&*, \[\]]*?\b(\w+)\(", re.MULTILINE)


def docs_of(text):
    for comment, name in DECLARATION.findall(text):
        lines = [line.removeprefix("///").removeprefix(" ") for line in comment.splitlines()]
        yield name, re.sub(r"\bnull(ptr)?\b", "None", "\n".join(lines))


def main(out, *headers):
    docs = {}
    for path in headers:
        with open(path, encoding="utf-8") as file:
            for name, doc in docs_of(file.read()):
                docs.setdefault(name, doc)
    rows = "".join(f'    {{"{name}", R"doc({doc})doc"}},\n' for name, doc in sorted(docs.items()))
    with open(out, "w", encoding="utf-8") as file:
        file.write('#include "python/docs.h"\n\nnamespace kestrix {\n\n'
                   f"const std::map<std::string_view, const char *> DOCS{{\n{rows}}};\n\n"
                   "}  // namespace kestrix\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
