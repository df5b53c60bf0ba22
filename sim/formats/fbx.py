"""FBX files to GLB and back, by the command line tool of assimp.

FBX counts in centimetres as a rule, and says so; GLB in metres. assimp writes each material's triangles as
a node of its own, and its binary FBX has blocks that readers refuse, so what is written here is text.
"""
import os
import subprocess
import tempfile

from . import glb


def _converted(data, source, target, *options):
    with tempfile.TemporaryDirectory() as folder:
        first, second = (os.path.join(folder, "file." + ending) for ending in (source, target))
        with open(first, "wb") as out:
            out.write(data)
        try:
            done = subprocess.run(["assimp", "export", first, second, *options], capture_output=True,
                                  text=True, errors="replace", timeout=60)
        except subprocess.TimeoutExpired:
            raise ValueError("assimp takes too long over it") from None
        if done.returncode or not os.path.exists(second):
            lines = [line for line in done.stdout.splitlines() if line.startswith("ERROR")]
            raise ValueError(f"assimp refuses it ({' '.join(lines) or done.returncode})")
        with open(second, "rb") as made:
            return made.read()


def to_glb(data):
    """The bytes of a GLB file, in metres, of those of an FBX file."""
    return _converted(data, "fbx", "glb", "-fglb2", "-gs")


def from_glb(data):
    """The bytes of an FBX file, of those of a GLB file that counts in centimetres.

    In names " becomes ', since text FBX can't hold it. Corners that differ in the second UV set alone
    become one.
    """
    file = glb.read(data)
    for named in file.items("materials") + file.items("nodes") + file.items("meshes"):
        named["name"] = named["name"].replace('"', "'")
    return _converted(glb.write(file.document, file.binary), "glb", "fbx", "-ffbxa")
