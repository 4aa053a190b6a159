# Renders the demo room (room.py) with Cycles into a scene package (docs/scene-format.md).
#
#   blender -b -P tools/blender/render.py -- --out DIR [--quick] [--size WxH] [--samples N]
#       [--framings wide,mid,close,top] [--cache DIR] [--threads N] [--scene-tool PATH]
#
# Every Cycles render is cached (DIR.cache by default) under a key made of its settings, room.py's
# text and RENDER_VERSION, so a rerun renders only what is missing or changed. One progress line per render
# goes to stdout; the package is checked with `turnelo-scene validate` at the end.
import argparse
import hashlib
import json
import math
import os
import shutil
import subprocess
import sys
import time

import bpy
import numpy as np
import OpenImageIO as oiio
from mathutils import Vector

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import denoise  # noqa: E402
import room as R  # noqa: E402

GROUPS = ["sun", "sky", "room", "lamp"]
PER_PRESET = ["sky"]
SCENARIO = "desk"
PRESET_ORDER = ["manha", "dia", "tarde", "noite"]
# Recipes: group factors per preset (grey), before the exposure that fit_exposure() adds.
PRESETS = {
    "manha": {"sun": 1.0, "room": 0.0, "vignette": 0.18, "grain": 0.010},
    "dia": {"sun": 1.0, "vignette": 0.15, "grain": 0.008},
    "tarde": {"sun": 1.0, "lamp": 0.45, "vignette": 0.2, "grain": 0.012},
    "noite": {"sun": 0.0, "lamp": 1.0, "room": 0.3, "vignette": 0.26, "grain": 0.016},
}
# Log-average luminance of the room (the window left out) each preset is exposed to, on the first
# framing: the exposures the room had when the window's white sheet was counted in.
TARGET_KEY = {"manha": 0.047, "dia": 0.039, "tarde": 0.022, "noite": 0.026}
# The view through the window is exposed on its own: by day its brightest tenth (the sky near the
# horizon) is brought to this level of the preset's light, bright but short of white, so the
# buildings read against it. The night's view keeps the strengths room.py gives the city's lights.
VIEW_P90 = {"manha": 0.9, "dia": 1.0, "tarde": 0.85}
# The clock: the night holds from 19:30 until dawn (a repeated keyframe), the afternoon until 17:45.
CLOCK = [["05:15", "noite"], ["06:45", "manha"], ["10:00", "dia"], ["15:00", "tarde"],
         ["17:45", "tarde"], ["19:30", "noite"]]
LED_COLOUR = [2.4, 0.25, 0.08]
STROBE_COLOUR = [1.6, 0.45, 0.15]
DUST_COVER_TRANSMISSION = 0.8
# Aperture of the front layer's render: wide, so the leaf by the lens is a soft shape, not a cut-out.
FRONT_FSTOP = 1.4
# Where little light reaches (the wall under the desk in `wide`, the wall behind the turntable and
# the platter in the lid's shadow in the others) the filter leaves blotches that only samples
# remove, so every framing's light renders take twice the samples.
LIGHT_SAMPLES_FACTOR = 2
# Shadow-sprite darkening below this is the catcher's noise, not the arm's shadow.
SHADOW_FLOOR = 0.04
MM = 1000.0


def parse_args():
    argv = sys.argv[sys.argv.index("--") + 1:] if "--" in sys.argv else []
    p = argparse.ArgumentParser(prog="render.py")
    p.add_argument("--out", required=True)
    p.add_argument("--quick", action="store_true", help="small and few samples: the whole package in minutes")
    p.add_argument("--size", default=None, help="WxH (default 1920x1080, quick 320x180)")
    p.add_argument("--samples", type=int, default=None,
                   help="samples of the light renders (default 32, quick 12); "
                        "the record's irradiance takes half, the arm a quarter")
    p.add_argument("--framings", default="wide,mid,close,top")
    p.add_argument("--cache", default=None)
    p.add_argument("--threads", type=int, default=0, help="render threads (0: all cores)")
    p.add_argument("--scene-tool", default=None, help="turnelo-scene, to validate the package")
    p.add_argument("--no-denoise", action="store_true", help="write the light plates as Cycles left them")
    p.add_argument("--max-renders", type=int, default=0,
                   help="stop after this many new renders (the cache keeps them; the same command resumes)")
    a = p.parse_args(argv)
    size = a.size or ("320x180" if a.quick else "1920x1080")
    a.width, a.height = (int(v) for v in size.lower().split("x"))
    if a.samples is None:
        # 32: the four framings within three hours on two cores. Timed at full size (close framing,
        # CPU seconds): a light render 991 at 64 samples, an arm sprite 269 and the record's
        # irradiance 37 at 32, the masks 211; the arm and record renders scale with their boxes.
        a.samples = 12 if a.quick else 32
    a.framings = [f for f in a.framings.split(",") if f]
    a.cache = a.cache or a.out.rstrip("/") + ".cache"
    return a


# Bumped when a change here alters what a render produces (its settings and scene states); the
# post-processing can change without rendering again.
RENDER_VERSION = 4


def source_hash():
    h = hashlib.sha1(str(RENDER_VERSION).encode())
    with open(os.path.join(HERE, "room.py"), "rb") as f:
        h.update(f.read())
    return h.hexdigest()[:12]


# ---------------------------------------------------------------- images

def read_layers(path):
    """Channels of a multilayer EXR as {pass: HxWxC float32}, top row first."""
    inp = oiio.ImageInput.open(path)
    if inp is None:
        raise RuntimeError("cannot read %s: %s" % (path, oiio.geterror()))
    header = inp.spec()
    px = inp.read_image(oiio.FLOAT)
    inp.close()
    names = list(header.channelnames)
    layers = {}
    for i, n in enumerate(names):
        parts = n.split(".")
        key = ".".join(parts[1:-1]) if len(parts) > 2 else parts[0]
        layers.setdefault(key, []).append(i)
    return {k: px[:, :, idx].astype(np.float32) for k, idx in layers.items()}


def write_exr(path, pixels, codec):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    h, w, c = pixels.shape
    header = oiio.ImageSpec(w, h, c, oiio.HALF)
    header.channelnames = ("R", "G", "B", "A")[:c]
    header.attribute("compression", codec)
    out = oiio.ImageOutput.create(path)
    if out is None or not out.open(path, header):
        raise RuntimeError("cannot write %s: %s" % (path, oiio.geterror()))
    out.write_image(np.ascontiguousarray(pixels, dtype=np.float32))
    out.close()


def write_png(path, pixels):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if pixels.ndim == 2:
        pixels = pixels[:, :, None]
    h, w, c = pixels.shape
    data = np.clip(np.rint(pixels * 255), 0, 255).astype(np.uint8)
    out = oiio.ImageOutput.create(path)
    out.open(path, oiio.ImageSpec(w, h, c, oiio.UINT8))
    out.write_image(np.ascontiguousarray(data))
    out.close()


def luminance(rgb):
    return rgb[..., 0] * 0.2126 + rgb[..., 1] * 0.7152 + rgb[..., 2] * 0.0722


# ---------------------------------------------------------------- geometry

class Camera:
    """The plate camera of a Blender camera: 3×4 matrix from world millimetres to plate pixels."""

    def __init__(self, obj, width, height):
        bpy.context.view_layer.update()
        cam = obj.data
        f = cam.lens / cam.sensor_width * width
        inv = obj.matrix_world.inverted()
        rt = np.array([list(inv[r][:4]) for r in range(3)])
        # Camera space looks down -z, y up: depth = -z, u = cx + f x / depth, v = cy - f y / depth.
        flip = np.diag([1.0, 1.0, -1.0])
        k = np.array([[f, 0, width / 2.0], [0, -f, height / 2.0], [0, 0, 1.0]])
        p = k @ (flip @ rt)
        p[:, :3] /= MM
        self.P = p
        self.width, self.height = width, height

    def project(self, world_m):
        x = np.array([world_m[0] * MM, world_m[1] * MM, world_m[2] * MM, 1.0])
        h = self.P @ x
        return np.array([h[0] / h[2], h[1] / h[2]]), h[2]

    def bounds(self, points, margin):
        uv = np.array([self.project(p)[0] for p in points])
        x0 = max(0, int(math.floor(uv[:, 0].min())) - margin)
        y0 = max(0, int(math.floor(uv[:, 1].min())) - margin)
        x1 = min(self.width, int(math.ceil(uv[:, 0].max())) + margin)
        y1 = min(self.height, int(math.ceil(uv[:, 1].max())) + margin)
        if x1 <= x0 or y1 <= y0:
            return None
        return [x0, y0, x1 - x0, y1 - y0]


def union(a, b):
    x0, y0 = min(a[0], b[0]), min(a[1], b[1])
    x1, y1 = max(a[0] + a[2], b[0] + b[2]), max(a[1] + a[3], b[1] + b[3])
    return [x0, y0, x1 - x0, y1 - y0]


def crop(img, rect):
    x, y, w, h = rect
    return img[y:y + h, x:x + w]


def edge_fade(rect, share=0.12):
    """1 inside a box, easing to 0 over its outer `share` on each side (H x W x 1)."""
    _, _, w, h = rect

    def ramp(n):
        t = np.clip(np.minimum(np.arange(n) + 0.5, n - np.arange(n) - 0.5) / max(1.0, share * n), 0, 1)
        return t * t * (3 - 2 * t)
    return (ramp(h)[:, None] * ramp(w)[None, :])[:, :, None].astype(np.float32)


def soften(img, weight, sigma):
    """A Gaussian blur of `img` that counts only where `weight` (H x W x 1) holds."""
    r = int(3 * sigma)
    k = np.exp(-np.arange(-r, r + 1) ** 2 / (2.0 * sigma * sigma))
    k /= k.sum()

    def blur(a):
        for axis in (0, 1):
            widths = [(0, 0)] * a.ndim
            widths[axis] = (r, r)
            p = np.pad(a, widths, mode="edge")
            n = a.shape[axis]
            a = sum(k[i] * np.take(p, range(i, i + n), axis=axis) for i in range(2 * r + 1))
        return a
    return blur(img * weight) / np.maximum(blur(weight), 1e-4) * weight


def disc(centre, r, n=96):
    turn = [2 * math.pi * i / n for i in range(n)]
    return [centre + Vector((math.cos(a) * r, math.sin(a) * r, 0)) for a in turn]


def world_corners(obj):
    bpy.context.view_layer.update()
    return [obj.matrix_world @ Vector(c) for c in obj.bound_box]


# ---------------------------------------------------------------- the renderer

class Pipeline:
    def __init__(self, args):
        self.a = args
        self.room = R.Room()
        self.scene = self.room.scene
        self.src = source_hash()
        self.done = 0
        self.fresh = 0
        self.cpu_seconds = 0.0
        self.total = 0
        self.seconds = 0.0
        self.setup_scene()
        self.materials = self.room.materials
        self.swaps = {
            "vinyl_specular": R.vinyl_material("vinyl_specular", "specular"),
            "vinyl_diffuse": R.vinyl_material("vinyl_diffuse", "diffuse"),
            "black": R.principled("black_sleeve", (0.0, 0.0, 0.0), roughness=1.0, specular=0.0),
            "clear": self.clear_material("clear", False),
            "clear_glass": self.clear_material("clear_glass", True),
        }

    @staticmethod
    def clear_material(name, window):
        """Fully transparent, so that coverage behind it is exact; the window keeps its AOVs, the lid
        marks where it stands."""
        mat = R.material(name)
        g = R.Nodes(mat)
        if window:
            g.aov("glass", 1.0)
            g.aov("glassdust", g.math('GREATER_THAN', g.n("ShaderNodeLightPath").outputs["Transparent Depth"], 0.5))
        else:
            g.aov("lid", 1.0)
        g.output(g.n("ShaderNodeBsdfTransparent", Color=(1, 1, 1, 1)))
        return mat

    def setup_scene(self):
        sc = self.scene
        sc.render.engine = 'CYCLES'
        cy = sc.cycles
        cy.device = 'CPU'
        cy.use_denoising = False
        cy.use_adaptive_sampling = True
        cy.adaptive_threshold = 0.05 if self.a.quick else 0.012
        cy.adaptive_min_samples = 0
        cy.max_bounces = 6
        cy.diffuse_bounces = 3
        cy.glossy_bounces = 3
        cy.transmission_bounces = 4
        cy.transparent_max_bounces = 12
        cy.sample_clamp_direct = 0.0
        cy.sample_clamp_indirect = 1.0
        cy.blur_glossy = 1.0
        cy.caustics_reflective = False
        cy.caustics_refractive = False
        cy.seed = 0
        # What every render shares, for the cache key; what a job changes goes in its own description.
        self.settings = [cy.adaptive_threshold, cy.max_bounces, cy.diffuse_bounces, cy.glossy_bounces,
                         cy.sample_clamp_indirect]
        sc.render.resolution_x = self.a.width
        sc.render.resolution_y = self.a.height
        sc.render.resolution_percentage = 100
        if self.a.threads:
            sc.render.threads_mode = 'FIXED'
            sc.render.threads = self.a.threads
        sc.view_settings.view_transform = 'Standard'
        st = sc.render.image_settings
        st.file_format = 'OPEN_EXR_MULTILAYER'
        st.color_depth = '32'
        st.exr_codec = 'ZIP'
        vl = sc.view_layers[0]
        # Guides for the denoiser.
        vl.use_pass_normal = True
        vl.use_pass_z = True
        vl.use_pass_diffuse_color = True
        vl.use_pass_glossy_color = True
        for g in GROUPS + ["view"]:
            vl.lightgroups.add(name=g)
        for name, kind in (("cover", 'VALUE'), ("label", 'VALUE'), ("record", 'VALUE'), ("glass", 'VALUE'),
                           ("glassdust", 'VALUE'), ("wall", 'VALUE'), ("lid", 'VALUE'), ("strobe", 'COLOR'), ("stackuv", 'COLOR')):
            aov = vl.aovs.add()
            aov.name = name
            aov.type = kind

    # -- one cached render
    def render(self, key, job, setup):
        """Renders once per distinct job; `setup` prepares the scene. Returns the passes."""
        digest = hashlib.sha1(json.dumps([self.src, self.a.width, self.a.height, self.settings, job],
                                         sort_keys=True).encode()).hexdigest()[:16]
        path = os.path.join(self.a.cache, "%s-%s.exr" % (key.replace("/", "_"), digest))
        self.done += 1
        tag = "[%d/%d] %s" % (self.done, self.total, key)
        if os.path.exists(path):
            print("%s: em cache" % tag, flush=True)
            return read_layers(path)
        if self.a.max_renders and self.fresh >= self.a.max_renders:
            print("parado após %d renders novos; o mesmo comando retoma" % self.fresh, flush=True)
            raise SystemExit(3)
        self.fresh += 1
        os.makedirs(self.a.cache, exist_ok=True)
        setup()
        self.scene.render.filepath = path + ".part.exr"
        t0, c0 = time.time(), time.process_time()
        bpy.ops.render.render(write_still=True)
        os.replace(path + ".part.exr", path)
        dt, cpu = time.time() - t0, time.process_time() - c0
        self.seconds += dt
        self.cpu_seconds += cpu
        # CPU time as well: on a shared machine the wall time says little about the render's cost.
        print("%s: %.1f s (CPU %.1f s)" % (tag, dt, cpu), flush=True)
        return read_layers(path)

    # -- scene states
    def reset(self, framing):
        sc = self.scene
        sc.camera = self.room.cameras[framing]
        sc.render.use_border = False
        sc.render.use_crop_to_border = False
        sc.render.film_transparent = False
        sc.cycles.samples = self.a.samples
        sc.cycles.max_bounces = 6
        sc.view_layers[0].cycles.use_pass_shadow_catcher = False
        self.room.coll["arm"].hide_render = True
        self.room.coll["outside"].hide_render = False
        self.room.coll["front"].hide_render = True
        for c in ("room", "turntable", "props", "lights"):
            self.room.coll[c].hide_render = False
        self.room.dust_cover.hide_render = False
        sc.camera.data.dof.use_dof = False
        for o in bpy.data.objects:
            o.is_shadow_catcher = False
        self.room.record.data.materials[0] = self.materials["vinyl"]
        self.room.sleeve.data.materials[0] = self.materials["sleeve"]
        self.room.dust_cover.data.materials[0] = self.materials["acrylic"]
        glass = bpy.data.objects["glass"]
        glass.data.materials[0] = self.materials["window_glass"]
        self.room.set_arm_yaw(0.0)

    def border(self, rect, margin=2):
        x, y, w, h = rect
        W, H = self.a.width, self.a.height
        x0, y0 = max(0, x - margin), max(0, y - margin)
        x1, y1 = min(W, x + w + margin), min(H, y + h + margin)
        r = self.scene.render
        r.use_border = True
        r.use_crop_to_border = False
        r.border_min_x, r.border_max_x = x0 / W, x1 / W
        r.border_min_y, r.border_max_y = 1 - y1 / H, 1 - y0 / H

    # -- the package
    def run(self):
        a = self.a
        os.makedirs(a.out, exist_ok=True)
        yaws = self.yaw_samples()
        per_framing = 1 + 4 * 3 + len(PRESET_ORDER) * len(yaws)
        self.total = per_framing * len(a.framings) + sum(1 for f in a.framings if f in self.room.front_framings)
        # The presets are fitted on the first framing and shared: the manifest has one set, and every
        # framing's arm sprites must be lit as that set lights its plates.
        self.fitted = None
        framings = {}
        presets = None
        noise = {}
        for name in a.framings:
            framing, presets, noise[name] = self.framing(name, yaws)
            framings[name] = framing
        manifest = {
            "contract": 1,
            "sun_keys": ["morning", "noon", "evening"],
            "groups": GROUPS,
            "per_preset_groups": PER_PRESET,
            "view": {"keys": list(PRESET_ORDER)},
            "scenario": SCENARIO,
            "tonemap": {"contrast": 1.1, "offset": 0.0, "gamma": 1.0},
            "showcase": {"floor": 0.06, "max_gain": 3.0, "art_floor": 0.04, "dark_max_gain": 6.0},
            "presets": presets,
            "clock": CLOCK,
            "framings": framings,
        }
        with open(os.path.join(a.out, "manifest.json"), "w") as f:
            json.dump(manifest, f, indent=2)
        size = sum(os.path.getsize(os.path.join(d, n)) for d, _, files in os.walk(a.out) for n in files)
        summary = {"out": a.out, "framings": a.framings, "size": [a.width, a.height], "samples": a.samples,
                   "render_seconds": round(self.seconds, 1),
                   "render_cpu_seconds": round(self.cpu_seconds, 1), "bytes": size, "noise": noise}
        self.validate()
        print(json.dumps(summary), flush=True)

    def validate(self):
        tool = self.a.scene_tool
        if not tool:
            guess = os.path.join(HERE, "..", "..", "build", "tools", "turnelo-scene")
            tool = guess if os.path.exists(guess) else shutil.which("turnelo-scene")
        if not tool:
            print("turnelo-scene não encontrado: pacote não validado", flush=True)
            return
        out = subprocess.run([tool, "validate", self.a.out], capture_output=True, text=True)
        if out.returncode != 0:
            raise SystemExit("validate falhou: " + out.stderr.strip())
        report = json.loads(out.stdout)
        if report.get("missing"):
            raise SystemExit("validate: faltam arquivos: %s" % report["missing"])
        print("validate: ok %s" % json.dumps(report["framings"]), flush=True)

    def yaw_samples(self):
        lead = self.room.yaw_for_radius(R.GROOVE_OUTER)
        run_out = self.room.yaw_for_radius(R.GROOVE_INNER)
        if self.a.quick:
            return [0.0, round(lead, 2), round(run_out, 2)]
        inner = np.linspace(lead, run_out + 1.0, 4)
        return [0.0] + [round(float(v), 2) for v in inner]

    def framing(self, name, yaws):
        a = self.a
        W, H = a.width, a.height
        cam = Camera(self.room.cameras[name], W, H)
        fdir = os.path.join(a.out, name)
        shutil.rmtree(fdir, ignore_errors=True)
        rm = self.room
        # Masks: no light, no bounces, clear glass; the AOVs give soft-edged coverage.
        mask_samples = 16 if a.quick else 32

        def masks_setup():
            self.reset(name)
            self.scene.cycles.samples = mask_samples
            self.scene.cycles.max_bounces = 0
            rm.dust_cover.data.materials[0] = self.swaps["clear"]
            bpy.data.objects["glass"].data.materials[0] = self.swaps["clear_glass"]
            rm.set_time("dia")
        m = self.render("%s/masks" % name, {"kind": "masks", "framing": name, "s": mask_samples}, masks_setup)
        masks = self.write_masks(fdir, m)

        # One render per time of day: every light group at once.
        light = {}
        samples = a.samples * (1 if a.quick else LIGHT_SAMPLES_FACTOR)
        for t in PRESET_ORDER:
            def setup(t=t):
                self.reset(name)
                rm.set_time(t)
                self.scene.cycles.samples = samples
            job = {"kind": "light", "framing": name, "time": t, "s": samples}
            light[t] = self.render("%s/light/%s" % (name, t), job, setup)
        raw = {t: dict(layers) for t, layers in light.items()}
        # Seen through the lid, a light render's guides mix, sample by sample, the acrylic's colour,
        # normal and depth with those of what stands behind it: neighbours never looked alike and the
        # filter left that rectangle grainy. There the guides are the masks render's, whose lid is
        # clear. Through the lid and in the open are two layers that must not be averaged together
        # (the acrylic tints and reflects): the depth through it is scaled, which keeps its relative
        # steps and makes every neighbour across its edge one of another depth.
        lid = m["lid"][:, :, :1] > 0.5

        def guide(layers, k):
            return np.where(lid, m[k][:, :, :3] * (4.0 if k == "Depth" else 1.0), layers[k][:, :, :3])
        if not a.no_denoise:
            for t, layers in light.items():
                # The view is emission seen straight through the glass: nothing to filter, and the
                # filter's guides (the glass's normal, the buildings' depth) would smear its windows.
                keys = [k for k in layers if k.startswith("Combined_") and k != "Combined_view"]
                # Diffuse and glossy colour: metal and vinyl are filtered too, along their reflections.
                colour = guide(layers, "DiffCol") + guide(layers, "GlossCol")
                clean = denoise.filter_plates([layers[k][:, :, :3] for k in keys], colour,
                                              guide(layers, "Normal"), guide(layers, "Depth")[:, :, 0])
                for k, img in zip(keys, clean):
                    layers[k] = img

        plates = {}  # plate name -> (time, group)
        for t, info in R.TIMES.items():
            if info["sun_key"]:
                plates["sun_" + info["sun_key"]] = (t, "sun")
            plates["sky_" + t] = (t, "sky")
            plates["view_" + t] = (t, "view")
        plates["lamp"] = ("noite", "lamp")
        plates["room"] = ("noite", "room")

        def plate(p, layers):
            t, g = plates[p]
            return layers[t]["Combined_" + g][:, :, :3]

        glass = masks["glass"] > 0.5
        if self.fitted is None:
            self.fitted = self.presets(lambda p: plate(p, light), glass)
        presets = self.fitted
        recipes = {n: self.recipe(n, d) for n, d in presets.items()}
        used = sorted({p for r in recipes.values() for p, _ in r})
        noise = {}
        # Plain wall in the open, and plain wall seen through the lid (where the acrylic's glints add
        # to the light's grain).
        wall = self.wall_patch(m["wall"][:, :, 0] * (m["lid"][:, :, 0] < 0.001))
        behind = self.wall_patch(m["wall"][:, :, 0] * (m["lid"][:, :, 0] > 0.5))

        def figure(n):
            return "-" if n is None else "%.4f" % n
        for p in used:
            img = plate(p, light)
            write_exr(os.path.join(fdir, "light", p + ".exr"), img, "dwaa")
            noise[p] = self.noise(img, wall)
            noise["lid:" + p] = self.noise(img, behind)
            print("%s: ruído %s = %s (antes do filtro %s), atrás da tampa %s (antes %s)"
                  % (name, p, figure(noise[p]), figure(self.noise(plate(p, raw), wall)),
                     figure(noise["lid:" + p]), figure(self.noise(plate(p, raw), behind))), flush=True)

        # The same figure for each preset's whole light, as the composite sums it.
        for preset, recipe in recipes.items():
            n = self.noise(sum(plate(p, light) * w for p, w in recipe), wall)
            noise["preset:" + preset] = n
            print("%s: ruído da luz %s = %s" % (name, preset, "-" if n is None else "%.4f" % n), flush=True)

        # Record passes and the sleeve's bounce.
        record_box = cam.bounds(disc(R.RECORD_CENTRE + Vector((0, 0, R.RECORD_TOP - R.RECORD_CENTRE.z)), R.RECORD_R), 2)
        s = rm.sleeve_size
        pose = rm.sleeve_pose.matrix_world
        bpy.context.view_layer.update()
        foot = [pose @ Vector((x, 0, 0)) for x in (-s / 2 - 0.05, s / 2 + 0.05)]
        area = []
        for f in foot:
            for dy in (0.0, -0.30):
                for z in (R.DESK_Z, R.DESK_Z + 0.12):
                    area.append(Vector((f.x, f.y + dy, z)))
        bounce_box = cam.bounds(area, 1)
        specular, diff = {}, {}
        for t in PRESET_ORDER:
            def setup_specular(t=t):
                self.reset(name)
                rm.set_time(t)
                rm.record.data.materials[0] = self.swaps["vinyl_specular"]
                rm.sleeve.data.materials[0] = self.swaps["black"]
                self.border(union(record_box, bounce_box))
            job = {"kind": "specular", "framing": name, "time": t, "s": a.samples, "box": union(record_box, bounce_box)}
            specular[t] = self.render("%s/record_specular/%s" % (name, t), job, setup_specular)

            def setup_diff(t=t):
                self.reset(name)
                rm.set_time(t)
                rm.record.data.materials[0] = self.swaps["vinyl_diffuse"]
                self.scene.cycles.samples = max(8, a.samples // 2)
                self.border(record_box)
            job = {"kind": "diffuse", "framing": name, "time": t, "s": max(8, a.samples // 2), "box": record_box}
            diff[t] = self.render("%s/record_diffuse/%s" % (name, t), job, setup_diff)
        record_px, cover_px = masks["record"], masks["cover"]
        for p in used:
            write_exr(os.path.join(fdir, "record", p + "_spec.exr"), crop(plate(p, specular), record_box), "dwaa")
            irradiance = crop(plate(p, diff) * math.pi, record_box)
            write_exr(os.path.join(fdir, "record", p + "_diffuse.exr"), irradiance, "dwaa")
            # Only the light the sleeve throws around it: its own face is the cover's, drawn with the art.
            # The difference of two renders, each filtered first: the noise of one clipped at zero
            # before filtering left a floor over the whole box, whose edge showed once the light
            # around it was clean.
            dark = crop(plate(p, specular), bounce_box)
            if not a.no_denoise:
                g = {k: crop(raw[plates[p][0]][k], bounce_box) for k in ("DiffCol", "GlossCol", "Normal", "Depth")}
                dark, = denoise.filter_plates([dark], g["DiffCol"][:, :, :3] + g["GlossCol"][:, :, :3],
                                              g["Normal"][:, :, :3], g["Depth"][:, :, 0])
            outside = crop((1 - record_px) * (1 - cover_px), bounce_box)[:, :, None]
            b = np.clip(crop(plate(p, light), bounce_box) - dark, 0, None)
            # What the two filters left apart is grain; the light a sleeve throws is soft.
            b = soften(b, outside, 0.006 * record_px.shape[0]) * edge_fade(bounce_box)
            write_exr(os.path.join(fdir, "bounce", p + ".exr"), b.astype(np.float32), "dwaa")

        # Tonearm sprites and shadows, per preset, over the room as a shadow catcher.
        arm_box = self.arm_bounds(cam, yaws)
        for preset in PRESET_ORDER:
            weights = self.light_weights(presets[preset])
            for n, yaw in enumerate(yaws):
                def setup_arm(preset=preset, yaw=yaw, weights=weights):
                    self.reset(name)
                    rm.set_time(preset, weights)
                    self.scene.render.film_transparent = True
                    self.scene.view_layers[0].cycles.use_pass_shadow_catcher = True
                    rm.coll["arm"].hide_render = False
                    rm.coll["outside"].hide_render = True
                    # The open lid stands behind the arm and casts no shadow: as a catcher it
                    # would only cut holes in the sprite's alpha.
                    rm.dust_cover.hide_render = True
                    rm.set_arm_yaw(yaw)
                    # The arm is small and its shadow a ratio: half the samples and fewer bounces
                    # keep the twenty sprites of a framing within the render budget; the filter
                    # takes the chrome's grain.
                    self.scene.cycles.samples = max(8, a.samples // 2)
                    self.scene.cycles.max_bounces = 4
                    for c in ("room", "turntable", "props"):
                        for o in rm.coll[c].all_objects:
                            o.is_shadow_catcher = o is not rm.bulb
                    self.border(arm_box)
                job = {"kind": "arm", "framing": name, "preset": preset, "yaw": yaw, "w": weights,
                       "s": max(8, a.samples // 2), "bounces": 4, "box": arm_box}
                out = self.render("%s/tonearm/%s/%02d" % (name, preset, n), job, setup_arm)
                self.write_arm(fdir, preset, n, out, arm_box)

        front_box = self.front(name, fdir, cam) if name in rm.front_framings else None
        f = self.framing_json(cam, masks, record_box, bounce_box, arm_box, yaws, presets)
        if front_box:
            f["front"] = {"bbox": front_box}
        return f, presets, noise

    # -- front layer
    def front(self, name, fdir, cam):
        """The out-of-focus leaf across the framing's corner, alone over a transparent film, with the
        depth of field of a lens focused on the record: a premultiplied sprite, the same at every hour."""
        a = self.a
        rm = self.room

        def setup():
            self.reset(name)
            rm.set_time("dia")
            for c in ("room", "turntable", "props", "outside", "lights"):
                rm.coll[c].hide_render = True
            rm.coll["front"].hide_render = False
            self.scene.render.film_transparent = True
            dof = self.scene.camera.data.dof
            dof.use_dof = True
            dof.focus_distance = (rm.front_focus - self.scene.camera.location).length
            dof.aperture_fstop = FRONT_FSTOP
        job = {"kind": "front", "framing": name, "s": a.samples, "fstop": FRONT_FSTOP}
        out = self.render("%s/front" % name, job, setup)
        rgba = out["Combined"].copy()
        rgba[rgba[:, :, 3] < 0.002] = 0
        cov = rgba[:, :, 3] > 0
        if not cov.any():
            return None
        write_exr(os.path.join(fdir, "front", "leaf.exr"), rgba, "dwaa")
        ys, xs = np.nonzero(cov)
        return [int(xs.min()), int(ys.min()), int(xs.max() - xs.min() + 1), int(ys.max() - ys.min() + 1)]

    # -- presets and exposure
    def presets(self, plate_of, glass):
        """The presets' recipes and exposures, fitted on one framing's plates: the room's light outside
        the glass (so the window does not decide the room's exposure) to TARGET_KEY, then the view by
        itself to VIEW_P90 inside the glass."""
        out = {}
        for name in PRESET_ORDER:
            base = dict(PRESETS[name])
            t = R.TIMES[name]
            d = {}
            if t["sun_key"]:
                d["sun_key"] = t["sun_key"]
            for g in ("sun", "room", "lamp"):
                if g in base:
                    d[g] = base[g]
            d["view"] = 0.0
            d["view_key"] = name
            d["vignette"] = base["vignette"]
            d["grain"] = base["grain"]
            mix = sum(plate_of(p) * w for p, w in self.recipe(name, d))
            lum = luminance(mix)[~glass] if (~glass).any() else luminance(mix)
            key = float(np.exp(np.mean(np.log(lum + 1e-4))))
            d["exposure"] = round(math.log2(TARGET_KEY[name] / key), 2)
            gain = 2.0 ** d["exposure"]
            view = 1.0
            if name in VIEW_P90 and glass.any():
                seen = luminance(plate_of("view_" + name))[glass]
                top = float(np.percentile(seen, 90))
                if top > 1e-6:
                    view = VIEW_P90[name] / (top * gain)
            d["view"] = round(view, 4)
            d["exposure_by_scenario"] = {SCENARIO: 0.0}
            d["record_light"] = self.record_light(name)
            out[name] = d
        return out

    @staticmethod
    def recipe(name, d):
        terms = []
        for g in ["view"] + GROUPS:
            default = 1.0 if g in PER_PRESET or g == "view" else 0.0
            w = d.get(g, default)
            if not w:
                continue
            if g == "sun":
                p = "sun_" + d.get("sun_key", "morning")
            elif g in PER_PRESET or g == "view":
                p = g + "_" + d.get(g + "_key", name)
            else:
                p = g
            terms.append((p, w))
        return terms

    def light_weights(self, d):
        """Group factors of a preset with its exposure, for lighting the arm as the preset does."""
        gain = 2.0 ** (d["exposure"] + d["exposure_by_scenario"][SCENARIO])
        w = {}
        for g in ["view"] + GROUPS:
            default = 1.0 if g in PER_PRESET or g == "view" else 0.0
            w[g] = round(float(d.get(g, default)) * gain, 5)
        return w

    def record_light(self, name):
        if R.TIMES[name]["sun_key"]:
            v = self.room.sun_direction(name)
            colour = list(R.TIMES[name]["sun_colour"])
        else:
            v = (self.room.lamp_head - Vector((R.RECORD_CENTRE.x, R.RECORD_CENTRE.y, R.RECORD_TOP))).normalized()
            colour = list(R.LAMP_COLOUR)
        return {"azimuth_deg": round(math.degrees(math.atan2(v.y, v.x)), 3),
                "elevation_deg": round(math.degrees(math.asin(max(-1, min(1, v.z)))), 3),
                "color": [round(c, 3) for c in colour]}

    # -- masks
    def write_masks(self, fdir, m):
        out = {}
        for k in ("cover", "label", "record", "glass", "glassdust"):
            out[k] = np.clip(m[k][:, :, 0], 0, 1)
        write_png(os.path.join(fdir, "masks", "cover.png"), out["cover"])
        write_png(os.path.join(fdir, "masks", "label.png"), out["label"])
        write_png(os.path.join(fdir, "masks", "record.png"), out["record"])
        if out["glass"].max() > 0.01:
            write_png(os.path.join(fdir, "masks", "glass.png"), out["glass"])
            if out["glassdust"].max() > 0.01:
                write_png(os.path.join(fdir, "masks", "glass_dustcover.png"), out["glassdust"])
        for k in ("strobe", "stackuv"):
            c = m[k][:, :, :3]
            cov = np.clip(c[:, :, 1 if k == "strobe" else 2], 0, 1)
            safe = np.where(cov > 1e-3, cov, 1.0)
            if k == "strobe":
                rgb = np.stack([c[:, :, 0] / safe, cov, c[:, :, 2] / safe], axis=2)
            else:
                rgb = np.stack([c[:, :, 0] / safe, c[:, :, 1] / safe, cov], axis=2)
            rgb = np.where(cov[:, :, None] > 1e-3, np.clip(rgb, 0, 1), 0)
            out[k] = rgb
            write_png(os.path.join(fdir, "masks", "strobe.png" if k == "strobe" else "stack_uv.png"), rgb)
        return out

    # -- tonearm
    def arm_bounds(self, cam, yaws):
        rm = self.room
        pts = []
        lights = [rm.sun_direction(t) for t in PRESET_ORDER if R.TIMES[t]["sun_key"]]
        lamp = rm.lamp_head
        for yaw in yaws:
            rm.set_arm_yaw(yaw)
            bpy.context.view_layer.update()
            for part in rm.arm_parts:
                for q in world_corners(part):
                    pts.append(q)
                    # Where its shadow falls on the plinth, from each sun and from the lamp.
                    for d in lights + [(lamp - q).normalized()]:
                        if d.z > 0.05:
                            pts.append(q - d * ((q.z - R.PLINTH_TOP) / d.z))
        rm.set_arm_yaw(0.0)
        box = cam.bounds(pts, 3)
        return box

    def write_arm(self, fdir, preset, n, out, box):
        rgba = crop(out["Combined"], box).copy()
        if not self.a.no_denoise:
            # Filtered over the arm's own pixels only: its edges keep the coverage Cycles gave them.
            g = {k: crop(out[k], box) for k in ("DiffCol", "GlossCol", "Normal", "Depth")}
            solid = rgba[:, :, 3] > 0.98
            clean, = denoise.filter_plates([rgba[:, :, :3]], g["DiffCol"][:, :, :3] + g["GlossCol"][:, :, :3],
                                           g["Normal"][:, :, :3], np.where(solid, g["Depth"][:, :, 0], 1e6))
            rgba[:, :, :3] = np.where(solid[..., None], clean, rgba[:, :, :3])
        rgba[rgba[:, :, 3] < 0.002] = 0
        write_exr(os.path.join(fdir, "tonearm", preset, "arm_%02d.exr" % n), rgba, "dwaa")
        shadow = np.clip(luminance(crop(out["Shadow Catcher"], box)[:, :, :3]), 0, 1)
        covered = rgba[:, :, 3] > 0.02
        if not self.a.no_denoise:
            # The catcher is a ratio of two noisy estimates: where the light is dim it scatters dark
            # dots over the whole box. Smoothed along the surfaces, then the last few per cent cut,
            # only the arm's real shadow is left.
            grey = np.repeat(shadow[:, :, None], 3, axis=2)
            depth = np.where(covered, 1e6, crop(out["Depth"], box)[:, :, 0])
            smooth, = denoise.filter_plates([grey], np.ones_like(grey), crop(out["Normal"], box)[:, :, :3], depth)
            shadow = np.clip(1 - np.maximum(0, (1 - smooth[:, :, 0]) - SHADOW_FLOOR) / (1 - SHADOW_FLOOR), 0, 1)
        # Under the arm itself the catcher has no meaning: fill from the neighbours.
        s = np.where(covered, np.nan, shadow)
        for _ in range(6):
            if not np.isnan(s).any():
                break
            pad = np.pad(s, 1, constant_values=np.nan)
            stack = np.stack([pad[1 + dy:1 + dy + s.shape[0], 1 + dx:1 + dx + s.shape[1]]
                              for dy in (-1, 0, 1) for dx in (-1, 0, 1)])
            with np.errstate(all="ignore"):
                fill = np.nanmean(stack, axis=0)
            s = np.where(np.isnan(s), fill, s)
        s = np.where(np.isnan(s), 1.0, s)
        write_png(os.path.join(fdir, "tonearm", preset, "shadow_%02d.png" % n), s)

    # -- noise
    def wall_patch(self, wall):
        """The square of plain wall (a fortieth of the plate wide, at least 8 pixels) nearest the
        plate's centre, as (x0, y0, x1, y1); None when there is none."""
        h, w = wall.shape
        k = max(8, w // 40)
        full = (wall > 0.999).astype(np.int64)
        ii = np.zeros((h + 1, w + 1), np.int64)
        ii[1:, 1:] = full.cumsum(0).cumsum(1)
        sums = ii[k:, k:] - ii[:-k, k:] - ii[k:, :-k] + ii[:-k, :-k]
        ys, xs = np.nonzero(sums == k * k)
        if len(ys) == 0:
            return None
        d = (ys + k / 2 - h / 2) ** 2 + (xs + k / 2 - w / 2) ** 2
        i = int(np.argmin(d))
        return (int(xs[i]), int(ys[i]), int(xs[i]) + k, int(ys[i]) + k)

    @staticmethod
    def noise(img, patch):
        """Standard deviation of the wall's luminance around the plane that fits it best, over its
        mean: the light's own gradient is not counted, grain and blotches are."""
        if patch is None:
            return None
        x0, y0, x1, y1 = patch
        lum = luminance(img[y0:y1, x0:x1]).astype(np.float64)
        mean = float(lum.mean())
        if mean < 1e-5:
            return None
        ys, xs = np.mgrid[0:lum.shape[0], 0:lum.shape[1]]
        a = np.stack([np.ones(lum.size), xs.ravel(), ys.ravel()], axis=1)
        fit, *_ = np.linalg.lstsq(a, lum.ravel(), rcond=None)
        return round(float((lum.ravel() - a @ fit).std() / mean), 5)

    # -- manifest
    def framing_json(self, cam, masks, record_box, bounce_box, arm_box, yaws, presets):
        rm = self.room
        W, H = self.a.width, self.a.height

        def px(p):
            uv, _ = cam.project(p)
            return [round(float(uv[0]), 4), round(float(uv[1]), 4)]

        def mm(v):
            return [round(float(c) * MM, 3) for c in v]

        bpy.context.view_layer.update()
        s = rm.sleeve_size / 2
        mw = rm.sleeve.matrix_world
        # The plane's local x is the art's right, local y its top.
        cover = [mw @ Vector((u, v, 0)) for u, v in ((-0.5, 0.5), (0.5, 0.5), (0.5, -0.5), (-0.5, -0.5))]
        c = Vector((R.RECORD_CENTRE.x, R.RECORD_CENTRE.y, R.RECORD_TOP))

        def square(r):
            return [px(c + Vector(v)) for v in ((-r, r, 0), (r, r, 0), (r, -r, 0), (-r, -r, 0))]

        rest = rm.arm_stylus_rest() - R.PIVOT
        lift_axis = Vector((rest.x, rest.y, 0)).normalized().cross(Vector((0, 0, 1)))
        f = {
            "size": [W, H],
            "camera": {"P": [[float(v) for v in row] for row in cam.P]},
            "cover": {"corners": [px(p) for p in cover], "mask": "masks/cover.png"},
            "label": {"corners": square(R.LABEL_R), "mask": "masks/label.png"},
            "tonearm": {
                "pivot": mm(R.PIVOT), "yaw_axis": [0, 0, -1], "lift_axis": [round(v, 6) for v in lift_axis],
                "yaw_rest": 0.0, "yaw_lead_in": round(rm.yaw_for_radius(R.GROOVE_OUTER), 3),
                "yaw_run_out": round(rm.yaw_for_radius(R.GROOVE_INNER), 3), "lift_max": 6.0,
                "plane_z": round(R.RECORD_TOP * MM, 3), "yaw_samples": yaws, "bbox": arm_box,
                "shadow": True, "reflection": False,
            },
            "record": {
                "corners": square(R.RECORD_R), "center_world": mm(c), "radius_mm": R.RECORD_R * MM,
                "label_radius_mm": R.LABEL_R * MM, "groove_outer_mm": R.GROOVE_OUTER * MM,
                "groove_inner_mm": R.GROOVE_INNER * MM, "bbox": record_box, "mask": "masks/record.png",
            },
            "bounce": {"bbox": bounce_box},
            "panel": {
                "led33": self.led(cam, rm.led_points["led33"]),
                "led45": self.led(cam, rm.led_points["led45"]),
                "strobe": {"mask": "masks/strobe.png", "dots": R.STROBE_DOTS, "color": STROBE_COLOUR},
            },
        }
        steam = px(rm.cup_top)
        if 0 <= steam[0] < W and 0 <= steam[1] < H:
            f["steam"] = {"point_px": steam}
        if "glass" in masks and masks["glass"].max() > 0.01:
            win = {"glass_mask": "masks/glass.png"}
            if masks["glassdust"].max() > 0.01:
                win["dust_cover_mask"] = "masks/glass_dustcover.png"
                win["dust_cover_transmission"] = DUST_COVER_TRANSMISSION
            f["window"] = win
        cov = masks["stackuv"][:, :, 2] > 0
        if cov.any():
            ys, xs = np.nonzero(cov)
            f["stack"] = {"art_uv": "masks/stack_uv.png",
                          "bbox": [int(xs.min()), int(ys.min()),
                                   int(xs.max() - xs.min() + 1), int(ys.max() - ys.min() + 1)]}
        return f

    def led(self, cam, p):
        c, _ = cam.project(p)
        e, _ = cam.project(p + Vector((R.LED_RADIUS, 0, 0)))
        return {"center_px": [round(float(c[0]), 4), round(float(c[1]), 4)],
                "radius_px": round(max(0.5, float(np.hypot(*(e - c)))), 4), "color": LED_COLOUR}


def main():
    args = parse_args()
    t0 = time.time()
    Pipeline(args).run()
    print("pronto em %.0f s" % (time.time() - t0), flush=True)


if __name__ == "__main__":
    try:
        main()
    except SystemExit as e:
        if isinstance(e.code, int):
            os._exit(e.code)
        if e.code is not None:
            print(e.code, file=sys.stderr, flush=True)
            os._exit(1)
        os._exit(0)
    except Exception:
        import traceback
        traceback.print_exc()
        os._exit(1)
    os._exit(0)
