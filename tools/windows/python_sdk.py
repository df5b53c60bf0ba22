"""Makes what a cross-build needs of a CPython 3.11 for Windows, from Debian's packages.

    python_sdk.py FOLDER

FOLDER/include: Debian's headers of CPython 3.11 with our pyconfig.h, and those of pybind11.
FOLDER/python311.def: the names of python311.dll that these headers import.
FOLDER/libpython311.a: the import library made from them.
"""
import pathlib
import re
import shutil
import subprocess
import sys

HERE = pathlib.Path(__file__).parent
HEADERS = pathlib.Path("/usr/include/python3.11")
PYBIND11 = pathlib.Path("/usr")
COMPILER = "x86_64-w64-mingw32-g++-posix"
DLLTOOL = "x86_64-w64-mingw32-dlltool"
DLL = "python311.dll"

# Headers that Python.h leaves to those who need them.
EXTRA = ("structmember.h", "datetime.h", "frameobject.h", "marshal.h")
IMPORTED = re.compile(r"__attribute__\s*\(\(dllimport\)\)([^;{]*)")
ATTRIBUTE = re.compile(r"__attribute__\s*\(\((?:[^()]|\([^()]*\))*\)\)")


def imported_names(preprocessed):
    """{name: whether it is data} of the declarations with dllimport in Python's own headers."""
    own, lines = False, []
    for line in preprocessed.splitlines():
        marker = re.match(r'# \d+ "([^"]*)"', line)
        if marker:
            own = "/include/python3.11/" in marker[1]
        elif own:
            lines.append(line)
    names = {}
    for match in IMPORTED.finditer("\n".join(lines)):
        declared = ATTRIBUTE.sub(" ", match[1])
        pointer = re.search(r"\(\s*\*\s*(\w+)\s*\)", declared)
        function = re.search(r"(\w+)\s*\(", declared)
        if pointer and (not function or pointer.start() <= function.end()):
            names[pointer[1]] = True  # a pointer to a function
        elif function:
            names[function[1]] = False
        else:
            names[re.search(r"(\w+)\s*(?:\[[^]]*\]\s*)*$", declared)[1]] = True
    return names


def make(folder):
    shutil.rmtree(folder, ignore_errors=True)
    include = folder / "include" / "python3.11"
    shutil.copytree(HEADERS, include)
    shutil.copy(HERE / "pyconfig.h", include)
    # Not from /usr/include itself: what else is there belongs to this machine's own compiler.
    shutil.copytree(PYBIND11 / "include/pybind11", folder / "include/pybind11")
    shutil.copytree(PYBIND11 / "lib/cmake/pybind11", folder / "lib/cmake/pybind11")
    source = "".join(f"#include <{name}>\n" for name in ("Python.h", *EXTRA))
    preprocessed = subprocess.run([COMPILER, "-E", "-x", "c++", f"-I{include}", "-"], input=source,
                                  capture_output=True, text=True)
    if preprocessed.returncode:
        sys.exit(preprocessed.stderr)
    names = imported_names(preprocessed.stdout)
    definition = folder / "python311.def"
    definition.write_text(f"LIBRARY {DLL}\nEXPORTS\n" + "".join(
        f"  {name}{' DATA' if data else ''}\n" for name, data in sorted(names.items())))
    subprocess.run([DLLTOOL, "-d", definition, "-l", folder / "libpython311.a"], check=True)


if __name__ == "__main__":
    make(pathlib.Path(sys.argv[1]))
