#!/usr/bin/python3
# Measures the view through the window in the application's own renders of a scene package. It renders
# nothing: give it the package and `turnelo render` PNGs of each framing at noon and at 21:30.
#
#   /usr/bin/python3 tools/blender/measure_view.py SCENE NOON NIGHT [--framings wide,mid]
#
# NOON and NIGHT are paths with "{framing}" in them, e.g. /tmp/r/{framing}-1200.png. Per framing, inside
# the glass mask (coverage above one half; a render of another size than the plates is sampled at the
# mask's nearest pixel), on the PNG's values (0…1, Rec. 709 weights): the luminance mean and standard
# deviation, the share of pixels above 0.98 at noon and above 0.3 at night. A framing fails when the
# noon view has no structure (deviation under 0.12) or is blown out (5 % or more above 0.98), or the
# night view has no lights (under 1 % above 0.3) or is not darker than noon. Exits 1 when one fails;
# framings without glass are listed and pass.
import argparse
import json
import os
import sys

import numpy as np
import OpenImageIO as oiio

NOON_STD_MIN = 0.12
NOON_WHITE = 0.98
NOON_WHITE_SHARE_MAX = 0.05
NIGHT_LIGHT = 0.3
NIGHT_LIGHT_SHARE_MIN = 0.01


def read(path):
    inp = oiio.ImageInput.open(path)
    if inp is None:
        raise SystemExit("não li %s: %s" % (path, oiio.geterror()))
    px = inp.read_image(oiio.FLOAT)
    inp.close()
    return px


def luminance(img):
    if img.shape[2] < 3:
        return img[:, :, 0]
    return img[:, :, 0] * 0.2126 + img[:, :, 1] * 0.7152 + img[:, :, 2] * 0.0722


def inside(mask, shape):
    """The glass pixels of a render of `shape`, from a mask at the plate's size."""
    h, w = shape
    ys = np.minimum(((np.arange(h) + 0.5) * mask.shape[0] / h).astype(int), mask.shape[0] - 1)
    xs = np.minimum(((np.arange(w) + 0.5) * mask.shape[1] / w).astype(int), mask.shape[1] - 1)
    return mask[ys][:, xs] > 0.5


def stats(path, mask, threshold):
    lum = luminance(read(path))
    sel = inside(mask, lum.shape)
    v = lum[sel]
    return {"pixels": int(v.size), "mean": round(float(v.mean()), 4), "std": round(float(v.std()), 4),
            "above": round(float((v > threshold).mean()), 4)}


def measure(scene, name, framing, noon, night):
    window = framing.get("window")
    if not window:
        return {"framing": name, "glass": False, "ok": True}
    mask = read(os.path.join(scene, name, window["glass_mask"]))[:, :, 0]
    day = stats(noon.replace("{framing}", name), mask, NOON_WHITE)
    dark = stats(night.replace("{framing}", name), mask, NIGHT_LIGHT)
    checks = {
        "estrutura ao meio-dia": day["std"] >= NOON_STD_MIN,
        "sem estouro ao meio-dia": day["above"] < NOON_WHITE_SHARE_MAX,
        "luzes às 21:30": dark["above"] >= NIGHT_LIGHT_SHARE_MIN,
        "noite mais escura": dark["mean"] < day["mean"],
    }
    return {"framing": name, "glass": True, "noon": day, "night": dark,
            "failed": [k for k, good in checks.items() if not good], "ok": all(checks.values())}


def main():
    p = argparse.ArgumentParser(prog="measure_view.py")
    p.add_argument("scene")
    p.add_argument("noon", help="noon render per framing, with {framing} in the path")
    p.add_argument("night", help="21:30 render per framing, with {framing} in the path")
    p.add_argument("--framings", default=None)
    p.add_argument("--json", action="store_true", help="one JSON line per framing instead of text")
    a = p.parse_args()
    with open(os.path.join(a.scene, "manifest.json")) as fh:
        manifest = json.load(fh)
    names = a.framings.split(",") if a.framings else sorted(manifest["framings"])
    ok = True
    for name in names:
        r = measure(a.scene, name, manifest["framings"][name], a.noon, a.night)
        ok &= r["ok"]
        if a.json:
            print(json.dumps(r), flush=True)
        elif not r["glass"]:
            print("%s: sem vidro à vista" % name, flush=True)
        else:
            d, n = r["noon"], r["night"]
            print("%s: 12:00 média %.3f desvio %.3f acima de %.2f %.1f%%; 21:30 média %.3f desvio %.3f acima de %.2f "
                  "%.1f%% (%d px de vidro): %s" % (name, d["mean"], d["std"], NOON_WHITE, 100 * d["above"], n["mean"],
                                                 n["std"], NIGHT_LIGHT, 100 * n["above"], d["pixels"],
                                                 "ok" if r["ok"] else "FALHA: " + ", ".join(r["failed"])), flush=True)
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
