"""What nobody has used for a while goes from the cache folder when the link starts."""
import os

OLD = {"blender/old", "import/mat/old", "ue/deep/old"}
IN_USE = {"blender/locked", "blender/vanished"}
STAY = {"blender/limit": 7, "import/new": 0, "ue/used": 29.9, "ue/deep/limit": 30,
        "terrain/h.png": 400, "grass/g.bin": 400, "note": 400}


def test_old_files_go_and_nothing_else(ed, K, clock, monkeypatch):
    root = K.cache_dir()
    for name, days in {**STAY, **dict.fromkeys(OLD | IN_USE, 30.1)}.items():
        path = os.path.join(root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.truncate(900_000)
        os.utime(path, (clock.epoch - days * 86400.0,) * 2)

    def refuse(operation, name):
        works = getattr(os, operation)

        def call(path, *args, **kwargs):
            if path == os.path.join(root, name):
                raise PermissionError(path)
            return works(path, *args, **kwargs)
        monkeypatch.setattr(os, operation, call)

    refuse("remove", "blender/locked")
    refuse("stat", "blender/vanished")
    assert K.start()
    left = {os.path.relpath(os.path.join(folder, name), root)
            for folder, _, names in os.walk(root) for name in names}
    assert left == IN_USE | set(STAY) and os.path.isdir(os.path.join(root, "import/mat"))
    assert ed.log[0][1].endswith("cache: removed 3 exchange files unused for a while (3 MB)")
    ed.clear_log()
    K._prune_cache()
    assert ed.log == []
    monkeypatch.setattr(os, "walk", lambda top: 1 / 0)
    assert K.start()
    assert ed.log[0] == ("warning", "[Verrin] cache cleanup: division by zero")
