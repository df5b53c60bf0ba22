"""A level to show the link with: a yard of props, a row of lamps, buildings, cameras, signs."""
import math
import random

import numpy as np
import unreal


def build(ed, actors=300, seed=7):
    """Fill the open level of `ed` up to about `actors` actors, and save it."""
    dice = random.Random(seed)
    sizes = {"Rock": (80, 60, 50), "Crate": (50, 50, 100), "Barrel": (30, 30, 90),
             "Pine": (120, 120, 600), "Wall": (200, 15, 300), "Pillar": (40, 40, 400)}
    meshes = [ed.make_mesh(f"/Game/Props/{name}", ((-x, -y, 0), (x, y, z)), slots=("Base", "Trim"))
              for name, (x, y, z) in sizes.items()]
    meshes += ["/Engine/BasicShapes/Cube", "/Engine/BasicShapes/Sphere"]
    rust = ed.make_material("/Game/Materials/M_Rust")
    moss = ed.make_material("/Game/Materials/MI_Moss", parent=rust)

    ed.spawn("DirectionalLight", "Sun", (0, 0, 2000), "Lights", rotation=(-45, 30, 0))
    ed.spawn("SkyLight", "Sky", folder="Lights")
    ed.spawn("PostProcessVolume", "Look", unbound=True)
    ed.spawn("CameraActor", "Overview", (-2500, 0, 1200), "Cameras", rotation=(-20, 0, 0))
    for i, focal in enumerate((24.0, 35.0, 85.0)):
        ed.spawn("CineCameraActor", f"Shot{i + 1}", (-800, 400 * i - 400, 170), "Cameras",
                 current_focal_length=focal)
    for i, (kind, units) in enumerate((("PointLight", "CANDELAS"), ("PointLight", "UNITLESS"),
                                       ("SpotLight", "LUMENS"), ("SpotLight", "EV"),
                                       ("RectLight", "NITS"), ("RectLight", "LUMENS")) * 4):
        ed.spawn(kind, f"Lamp{i + 1}", (250 * i - 3000, -900, 350), "Lights/Street",
                 tags=("night",), rotation=(-90, 0, 0),
                 intensity=8.0 if units == "EV" else 500.0 + 50.0 * i,
                 intensity_units=getattr(unreal.LightUnits, units),
                 light_color=unreal.Color(r=255, g=230 - 5 * i, b=180, a=255))
    for i, words in enumerate(("North gate", "Yard", "Office", "No parking")):
        ed.spawn("TextRenderActor", f"Sign{i + 1}", (600 * i - 900, 800, 200), "Signs",
                 text=words, world_size=40.0)
    for i in range(6):
        house = [(meshes[4], (dx, dy, 0)) for dx in (0, 400) for dy in (0, 400)]
        ed.spawn_blueprint("BP_House_C", f"House{i + 1}", house, (1200 * i - 3000, 1600, 0),
                           "Buildings", rotation=(0, 15 * i, 0))

    for i in range(actors - len(ed.actors())):
        mesh, turn = dice.choice(meshes), dice.uniform(0.0, 2.0 * math.pi)
        far = 400.0 + 3000.0 * math.sqrt(dice.random())
        prop = ed.spawn("StaticMeshActor", f"Prop{i + 1}",
                        (far * math.cos(turn), far * math.sin(turn), 0.0), f"Props/Row{i % 8}",
                        mesh=mesh, rotation=(0, dice.uniform(-180, 180), 0),
                        scale=(dice.uniform(0.5, 2.0),) * 3,
                        tags=("prop", f"row{i % 8}") if i % 3 == 0 else ())
        if i % 25 == 0:
            ed.set(prop, override_materials=[rust, None] if i % 50 else [None, moss])
    x, y = np.meshgrid(np.linspace(0, 9, 127), np.linspace(0, 7, 127))
    ed.spawn_landscape("Ground", 32768 + 600 * np.sin(x) * np.sin(y), 63, scale=(60, 60, 25),
                       location=(-3780, -3780, -130))
    ed.save()
    ed.clear_history()
