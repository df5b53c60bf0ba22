"""Checks a cross-built module: what it imports has to be on a user's Windows, and in its Python.

    check_module.py MODULE.pyd PYTHON311.DEF
"""
import pathlib
import re
import subprocess
import sys

OBJDUMP = "x86_64-w64-mingw32-objdump"
SYSTEM = {"kernel32.dll", "msvcrt.dll"}
PYTHON = "python311.dll"


def tables(dump):
    """{library: imported names} and the exported names, of objdump's private headers."""
    imports, exports, library, part = {}, [], None, None
    for line in dump.splitlines():
        if named := re.match(r"\s*DLL Name: (\S+)", line):
            library, part = named[1].lower(), "imports"
            imports[library] = set()
        elif line.startswith("[Ordinal/Name Pointer] Table"):
            part = "exports"
        elif not line.strip():
            part = None
        elif part == "imports" and (named := re.match(r"\s*[0-9a-f]+\s+(?:<none>|\d+)\s+(\S+)$",
                                                      line)):
            imports[library].add(named[1])
        elif part == "exports" and (named := re.match(r"\s*\[\s*\d+\].*?(\S+)$", line)):
            exports.append(named[1])
    return imports, exports


def faults(module, definition):
    """What is wrong with the module, a line each."""
    dump = subprocess.run([OBJDUMP, "-p", module], check=True, capture_output=True, text=True)
    imports, exports = tables(dump.stdout)
    known = {line.split()[0] for line in definition.read_text().splitlines()
             if line.startswith(" ")}
    init = "PyInit_" + module.name.split(".")[0]
    if exports != [init]:
        yield f"exports {exports}, not {init} alone"
    for library in sorted(imports.keys() - SYSTEM - {PYTHON}):
        yield f"needs {library}: {', '.join(sorted(imports[library]))}"
    if not imports.get(PYTHON):
        yield f"imports nothing from {PYTHON}"
    for name in sorted(imports.get(PYTHON, set()) - known):
        yield f"imports {name}, which {PYTHON} doesn't have"


def main():
    module, definition = map(pathlib.Path, sys.argv[1:])
    found = list(faults(module, definition))
    for fault in found:
        print(f"{module.name} {fault}", file=sys.stderr)
    if found:
        return 1
    print(f"{module}: imports and exports are right")
    return 0


if __name__ == "__main__":
    sys.exit(main())
