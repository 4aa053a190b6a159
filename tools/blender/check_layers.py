#!/usr/bin/python3
# Checks that the live layers sit on the rendered objects of a scene package.
#
#   /usr/bin/python3 tools/blender/check_layers.py SCENE --turnelo build/turnelo [--framings wide,mid] [--out DIR]
#
# Per framing:
# - geometry: the sleeve's quad and the label's and record's discs, as the manifest gives them, against
#   the masks Blender rendered. A mask pixel lying farther than a pixel outside its geometry, or a
#   disc whose centre misses the mask's, means the live art is drawn off the object.
# - pictures: the room rendered by the application with the live record and stack, and without them
#   (the plates' own record and sleeves show), at the plate size. Pixels that differ outside the
#   record and stack masks, grown by a pixel, are seams. Crops of both and of their difference go to
#   --out as PNG to look at.
# Exits 1 when a framing is off by more than a pixel.
import argparse
import json
import os
import subprocess
import sys
import tempfile

import numpy as np
import OpenImageIO as oiio

TOLERANCE_PX = 1.0
SUPERSAMPLE = 4


def read(path):
    inp = oiio.ImageInput.open(path)
    if inp is None:
        raise RuntimeError("não li %s: %s" % (path, oiio.geterror()))
    px = inp.read_image(oiio.FLOAT)
    inp.close()
    return px


def coverage(path, channel=0):
    return read(path)[:, :, channel]


def homography(corners):
    """Maps the unit square's (-1, 1), (1, 1), (1, -1), (-1, -1) to the four plate corners."""
    src = [(-1, 1), (1, 1), (1, -1), (-1, -1)]
    a, b = [], []
    for (x, y), (u, v) in zip(src, corners):
        a.append([x, y, 1, 0, 0, 0, -u * x, -u * y])
        a.append([0, 0, 0, x, y, 1, -v * x, -v * y])
        b += [u, v]
    h = np.linalg.solve(np.array(a, float), np.array(b, float))
    return np.append(h, 1.0).reshape(3, 3)


def rasterise(shape, corners, inside):
    """Coverage of the shape `inside(qx, qy)` (unit-square coordinates) through the quad, per plate pixel."""
    h, w = shape
    inv = np.linalg.inv(homography(corners))
    cs = np.array(corners)
    x0, y0 = np.floor(cs.min(0)).astype(int) - 2
    x1, y1 = np.ceil(cs.max(0)).astype(int) + 2
    x0, y0, x1, y1 = max(0, x0), max(0, y0), min(w, x1), min(h, y1)
    out = np.zeros(shape, np.float32)
    if x1 <= x0 or y1 <= y0:
        return out
    offsets = (np.arange(SUPERSAMPLE) + 0.5) / SUPERSAMPLE
    acc = np.zeros((y1 - y0, x1 - x0), np.float32)
    for oy in offsets:
        for ox in offsets:
            xs, ys = np.meshgrid(np.arange(x0, x1) + ox, np.arange(y0, y1) + oy)
            q = inv @ np.stack([xs.ravel(), ys.ravel(), np.ones(xs.size)])
            qx, qy = q[0] / q[2], q[1] / q[2]
            acc += inside(qx, qy).reshape(acc.shape)
    out[y0:y1, x0:x1] = acc / SUPERSAMPLE ** 2
    return out


def dilate(region):
    out = region.copy()
    out[1:, :] |= region[:-1, :]
    out[:-1, :] |= region[1:, :]
    out[:, 1:] |= region[:, :-1]
    out[:, :-1] |= region[:, 1:]
    out[1:, 1:] |= region[:-1, :-1]
    out[:-1, :-1] |= region[1:, 1:]
    out[1:, :-1] |= region[:-1, 1:]
    out[:-1, 1:] |= region[1:, :-1]
    return out


def beyond(mask, geometry, limit=6):
    """How far (whole pixels, up to `limit`) the mask's pixels reach outside the geometry."""
    covered = mask > 0.5
    grown = geometry > 0.5
    for d in range(limit + 1):
        if not (covered & ~grown).any():
            return d
        grown = dilate(grown)
    return limit + 1


def centre(cov):
    total = cov.sum()
    if total <= 0:
        return None
    ys, xs = np.mgrid[0:cov.shape[0], 0:cov.shape[1]]
    return np.array([(cov * (xs + 0.5)).sum() / total, (cov * (ys + 0.5)).sum() / total])


def project(P, point):
    h = np.array(P) @ np.append(np.array(point, float), 1.0)
    return h[:2] / h[2]


def render(turnelo, scene, framing, size, out, off):
    args = [turnelo, "render", scene, out, "--framing", framing, "--size", "%dx%d" % size, "--time", "12:00",
            "--no-steam", "--no-bounce", "--no-panel", "--no-weather"] + off
    r = subprocess.run(args, capture_output=True, text=True)
    if r.returncode != 0:
        raise RuntimeError("turnelo render falhou: %s" % r.stderr[-2000:])
    return read(out)[:, :, :3]


def write_png(path, pixels):
    h, w, c = pixels.shape
    out = oiio.ImageOutput.create(path)
    out.open(path, oiio.ImageSpec(w, h, c, oiio.UINT8))
    out.write_image(np.ascontiguousarray(np.clip(pixels, 0, 1), dtype=np.float32))
    out.close()


def check_framing(scene, name, f, turnelo, out_dir):
    fdir = os.path.join(scene, name)
    size = tuple(f["size"])
    shape = (size[1], size[0])
    P = f["camera"]["P"]
    disc = lambda qx, qy: qx * qx + qy * qy <= 1.0
    square = lambda qx, qy: (np.abs(qx) <= 1.0) & (np.abs(qy) <= 1.0)
    ok = True
    report = []

    surfaces = [("capa", f["cover"], square, False), ("selo", f["label"], disc, False)]
    if "record" in f:
        # The record's edge shows below its top face; above the spindle only the face can show.
        surfaces.append(("disco", f["record"], disc, True))
    for label, surface, inside, far_half in surfaces:
        mask = coverage(os.path.join(fdir, surface["mask"]))
        geometry = rasterise(shape, surface["corners"], inside)
        if far_half:
            mask = mask.copy()
            mask[int(project(P, f["record"]["center_world"])[1]):, :] = 0
        reach = beyond(mask, geometry)
        good = reach <= TOLERANCE_PX
        ok &= good
        report.append("%s: %s além da geometria %d px" % (label, "ok" if good else "FORA", reach))

    if "record" in f:
        # The label as drawn against the label the manifest describes (a projected disc's centroid is
        # not its centre's projection, so centroids are compared), and the spindle, where the grooves
        # turn, against the centre of the label's quad.
        drawn = centre(coverage(os.path.join(fdir, f["label"]["mask"])))
        described = centre(rasterise(shape, f["label"]["corners"], disc))
        miss = float(np.hypot(*(described - drawn))) if drawn is not None else float("inf")
        h = homography(f["label"]["corners"]) @ np.array([0.0, 0.0, 1.0])
        spindle = float(np.hypot(*(project(P, f["record"]["center_world"]) - h[:2] / h[2])))
        good = miss <= TOLERANCE_PX and spindle <= TOLERANCE_PX
        ok &= good
        report.append("selo: %s, centro a %.2f px do desenhado, eixo a %.2f px" % ("ok" if good else "FORA", miss,
                                                                                 spindle))

    with tempfile.TemporaryDirectory() as tmp:
        live = render(turnelo, scene, name, size, os.path.join(tmp, "live.png"), [])
        plain = render(turnelo, scene, name, size, os.path.join(tmp, "plain.png"), ["--no-record", "--no-stack"])
    region = np.zeros(shape, bool)
    if "record" in f:
        region |= coverage(os.path.join(fdir, f["record"]["mask"])) > 0.002
    if "stack" in f:
        region |= coverage(os.path.join(fdir, f["stack"]["art_uv"]), 2) > 0.002
    allowed = dilate(region)
    differs = np.abs(live - plain).max(axis=2) > 1.5 / 255
    seams = int((differs & ~allowed).sum())
    good = seams == 0
    ok &= good
    report.append("camadas: %s, %d px diferentes fora do disco e da pilha" % ("ok" if good else "FORA", seams))

    if out_dir and region.any():
        ys, xs = np.nonzero(region)
        m = 24
        y0, y1 = max(0, ys.min() - m), min(shape[0], ys.max() + m)
        x0, x1 = max(0, xs.min() - m), min(shape[1], xs.max() + m)
        diff = np.clip(np.abs(live - plain) * 4, 0, 1)
        strip = np.concatenate([plain[y0:y1, x0:x1], live[y0:y1, x0:x1], diff[y0:y1, x0:x1]], axis=1)
        os.makedirs(out_dir, exist_ok=True)
        write_png(os.path.join(out_dir, "%s-layers.png" % name), strip)
    print("%s: %s" % (name, "; ".join(report)), flush=True)
    return ok


def main():
    p = argparse.ArgumentParser(prog="check_layers.py")
    p.add_argument("scene")
    p.add_argument("--turnelo", required=True)
    p.add_argument("--framings", default=None)
    p.add_argument("--out", default=None, help="folder for the crops to look at")
    a = p.parse_args()
    with open(os.path.join(a.scene, "manifest.json")) as fh:
        manifest = json.load(fh)
    framings = a.framings.split(",") if a.framings else sorted(manifest["framings"])
    ok = True
    for name in framings:
        ok &= check_framing(a.scene, name, manifest["framings"][name], a.turnelo, a.out)
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
