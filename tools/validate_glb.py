"""Khronos' validator over what the stand-in's exporter writes. `make validate` brings both.

    tools/validate_glb.py MODULES [FILE.glb ...]

Each file (the tests' samples, if none is named) is imported into an editor; every mesh, skeletal mesh and
material that comes of it is exported again, with its textures and without. Ends with 1 for an error.
"""
import json
import pathlib
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT), str(ROOT / "sim")]

import sim  # noqa: E402
import unreal as u  # noqa: E402

SCRIPT = """
const {validateBytes} = require(process.argv[1] + '/gltf-validator');
(async () => {
  const found = {};
  for (const file of process.argv.slice(2)) {
    const data = new Uint8Array(require('fs').readFileSync(file));
    found[file] = (await validateBytes(data, {maxIssues: 0})).issues;
  }
  console.log(JSON.stringify(found));
})();
"""


def exported(source, folder):
    """The files that come of one sample."""
    ed = sim.Editor(tempfile.mkdtemp(dir=folder))
    files = []
    for asset in ed.import_file(source):
        if not isinstance(asset, (u.StaticMesh, u.SkeletalMesh, u.MaterialInterface)):
            continue
        for format in (u.GLTFTextureImageFormat.PNG, u.GLTFTextureImageFormat.NONE):
            options = u.GLTFExportOptions()
            options.set_editor_properties({"texture_image_format": format, "export_vertex_colors": True})
            file = f"{folder}/{source.stem}-{asset.get_name()}-{format.name}.glb"
            if u.GLTFExporter.export_to_gltf(asset, file, options, set()):
                files.append(file)
    return files


def main(modules, *sources):
    sources = [pathlib.Path(s) for s in sources] or sorted((ROOT / "tests/data/glb").glob("*.glb"))
    with tempfile.TemporaryDirectory() as folder:
        files = [file for source in sources for file in exported(source, folder)]
        done = subprocess.run(["node", "-e", SCRIPT, str(pathlib.Path(modules).resolve()), *files],
                              check=True, capture_output=True, text=True)
        errors = 0
        for file, issues in json.loads(done.stdout).items():
            errors += issues["numErrors"]
            told = sorted({f"{m['code']} {m['message']}" for m in issues["messages"] if m["severity"] < 2})
            if told:
                print(f"{pathlib.Path(file).stem}: " + "; ".join(told))
    print(f"{len(files)} files of {len(sources)}: {errors} errors")
    return 1 if errors or not files else 0


if __name__ == "__main__":
    raise SystemExit(main(*sys.argv[1:]))
