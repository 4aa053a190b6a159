# A cross-bilateral filter for Cycles light plates, for Blender builds without a denoiser (Debian's
# has no OpenImageDenoise). The plate is divided by the surface colour (diffuse and glossy), filtered
# over neighbours with a like normal, depth and colour, and multiplied back, so texture and edges stay
# sharp and only the light's grain is smoothed. Pure numpy; images are H x W x C float32, top row first.
import numpy as np


def _shift(a, dy, dx):
    """a moved by (dy, dx) with edge pixels repeated."""
    h, w = a.shape[:2]
    ys = np.clip(np.arange(h) - dy, 0, h - 1)
    xs = np.clip(np.arange(w) - dx, 0, w - 1)
    return a[ys][:, xs]


def _lum(rgb):
    return rgb[..., 0] * 0.2126 + rgb[..., 1] * 0.7152 + rgb[..., 2] * 0.0722


def _calm(im):
    """Pulls lone fireflies down to their neighbours' mean (4 times it at most)."""
    lum = _lum(im)
    ring = sum(_shift(lum, dy, dx) for dy in (-1, 0, 1) for dx in (-1, 0, 1) if dy or dx) / 8.0
    cap = 4.0 * ring + 1e-3
    scale = np.where(lum > cap, cap / np.maximum(lum, 1e-8), 1.0)
    return (im * scale[..., None]).astype(np.float32)


def filter_plates(plates, albedo, normal, depth, radius=2, spatial=1.5, steps=(1, 2, 4, 8)):
    """Filters several plates of one render (same guides) at once; returns the filtered list.

    albedo: surface colour (H x W x 3); normal: H x W x 3; depth: H x W (camera distance). Each
    step is one pass over neighbours that far apart (à trous): the later, sparser passes reach the
    blotches a small window leaves, at the cost of one small window each. Plates with no light are
    returned as they are."""
    eps = 0.02
    albedo = albedo.astype(np.float32)
    normal = normal.astype(np.float32)
    diffuse = _lum(albedo) > eps
    alb = np.maximum(albedo, eps)
    lit = [i for i, p in enumerate(plates) if float(np.abs(p).max()) > 1e-6]
    irr = [_calm(np.where(diffuse[..., None], plates[i] / alb, 0.0).astype(np.float32)) for i in lit]
    z = np.maximum(depth, 1e-4).astype(np.float32)
    for step in steps:
        irr = _pass(irr, albedo, normal, z, diffuse, radius, spatial, step)
    out = [p.astype(np.float32) for p in plates]
    for i, f in zip(lit, irr):
        out[i] = np.where(diffuse[..., None], f * alb, plates[i]).astype(np.float32)
    return out


def _pass(irr, albedo, normal, z, diffuse, radius, spatial, step):
    h, w = z.shape
    r = radius * step

    def pad(a):
        return np.pad(a, ((r, r), (r, r)) + ((0, 0),) * (a.ndim - 2), mode="edge")

    def at(a, sy, sx):  # the padded array's view of the neighbour (sy, sx) away
        return a[r + sy:r + sy + h, r + sx:r + sx + w]

    pn, pz, pa, pd = pad(normal), pad(z), pad(albedo), pad(diffuse.astype(np.float32))
    # A smoothed luminance per plate for the range term: keeps shadow edges from being washed over.
    smooth = []
    for im in irr:
        lum = _lum(im)
        smooth.append((sum(_shift(lum, dy, dx) for dy in (-1, 0, 1) for dx in (-1, 0, 1)) / 9.0).astype(np.float32))
    ps = [pad(s) for s in smooth]
    pi = [pad(im) for im in irr]
    acc = [np.zeros_like(im) for im in irr]
    wsum = [np.zeros(z.shape, np.float32) for _ in irr]
    for dy in range(-radius, radius + 1):
        for dx in range(-radius, radius + 1):
            sy, sx = dy * step, dx * step
            ws = np.float32(np.exp(-(dx * dx + dy * dy) / (2 * spatial * spatial)))
            wn = np.exp(-np.clip(1 - np.sum(normal * at(pn, sy, sx), axis=2), 0, 2) / np.float32(0.05))
            wz = np.exp(-np.square((z - at(pz, sy, sx)) / (np.float32(0.02) * z)))
            wa = np.exp(-np.sum(np.square(albedo - at(pa, sy, sx)), axis=2) / np.float32(0.004))
            wgt = ws * wn * wz * wa * at(pd, sy, sx)
            for i in range(len(irr)):
                s, ss = smooth[i], at(ps[i], sy, sx)
                wi = wgt * np.exp(-np.square((s - ss) / (np.float32(0.35) * (s + ss) + np.float32(1e-4))))
                acc[i] += wi[..., None] * at(pi[i], sy, sx)
                wsum[i] += wi
    return [a / np.maximum(ws, 1e-8)[..., None] for a, ws in zip(acc, wsum)]
