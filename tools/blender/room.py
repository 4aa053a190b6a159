# The demo room, modelled procedurally for Blender 3.4 (Cycles): a 1979 direct-drive turntable on a
# desk against a wall with a window onto the city, a lamp, a plant, a cup, a record stack and speakers.
# Blender units are metres, z up; the wall with the window faces -y. The render script turns metres
# into the package's millimetres.
#
# Used by render.py; on its own it builds the scene and can save it:
#   blender -b --factory-startup -P tools/blender/room.py -- --save /tmp/room.blend
import math
import random
import sys

import bpy
from mathutils import Euler, Matrix, Vector

DESK_Z = 0.75           # desk top
WALL_Y = 0.55           # inner face of the wall with the window
WINDOW = (-1.25, -0.05, 0.88, 2.25)  # opening: x0, x1, z0, z1

TT = Vector((-0.02, 0.20, DESK_Z))   # turntable footprint centre on the desk
PLINTH = (0.46, 0.37, 0.085)
PLINTH_TOP = DESK_Z + 0.012 + PLINTH[2]  # feet lift the plinth
PLATTER_R = 0.166
RECORD_CENTRE = TT + Vector((-0.055, 0.02, 0))
RECORD_R = 0.150
LABEL_R = 0.050
GROOVE_OUTER = 0.146
GROOVE_INNER = 0.060
PLATTER_Z0 = PLINTH_TOP + 0.004
PLATTER_Z1 = PLATTER_Z0 + 0.024
STROBE_BAND = (PLATTER_Z0 + 0.015, PLATTER_Z0 + 0.021)  # the row of dots the live strobe lights
STROBE_DOTS = 180
MAT_TOP = PLATTER_Z1 + 0.003
RECORD_TOP = MAT_TOP + 0.0019
PIVOT = Vector((RECORD_CENTRE.x + 0.215, RECORD_CENTRE.y + 0.075, RECORD_TOP))
ARM_LENGTH = 0.232   # pivot to stylus
LED_RADIUS = 0.0022

# Light groups and the times of day the presets are rendered at. The sun key of each time, and the
# sun's elevation and azimuth (degrees; azimuth from +x towards +y, where the light comes from).
TIMES = {
    "manha": {"sun_key": "morning", "elevation": 24.0, "azimuth": 70.0, "sun": 11.0, "sky": 0.5,
              "sun_colour": (1.0, 0.86, 0.70)},
    "dia": {"sun_key": "noon", "elevation": 42.0, "azimuth": 95.0, "sun": 13.0, "sky": 0.55,
            "sun_colour": (1.0, 0.98, 0.95)},
    "tarde": {"sun_key": "evening", "elevation": 17.0, "azimuth": 122.0, "sun": 10.0, "sky": 0.45,
              "sun_colour": (1.0, 0.66, 0.38)},
    "noite": {"sun_key": None, "elevation": -5.0, "azimuth": 120.0, "sun": 0.0, "sky": 0.4,
              "sun_colour": (1.0, 1.0, 1.0)},
}
# The view through the window, per time of day: the sky's horizon and zenith, the ambient light and
# the sun on the façades, the haze (its colour, the street lights' glow in it near the ground, and
# the distance at which it takes two thirds of the light), clouds, the share of lit windows and the
# strength of the city's lamps. Emission only (the "view" group): it lights nothing in the room.
OUTSIDE = {
    "manha": {"horizon": (1.0, 0.84, 0.66), "zenith": (0.42, 0.55, 0.75), "ambient": (0.2, 0.2, 0.23),
              "sun_colour": (1.0, 0.78, 0.55), "haze_colour": (0.95, 0.84, 0.72), "glow_colour": (0.95, 0.84, 0.72),
              "haze_distance": 260.0, "clouds": 0.35, "cloud_colour": (1.0, 0.88, 0.78), "sun_glow": 0.5,
              "lit_share": 0.04, "window_light": 0.4, "street_light": 0.0},
    "dia": {"horizon": (0.78, 0.86, 0.98), "zenith": (0.24, 0.43, 0.85), "ambient": (0.08, 0.09, 0.12),
            "sun_colour": (1.0, 0.97, 0.92), "haze_colour": (0.75, 0.82, 0.92), "glow_colour": (0.75, 0.82, 0.92),
            "haze_distance": 2500.0, "clouds": 0.6, "cloud_colour": (1.05, 1.05, 1.05), "sun_glow": 0.3,
            "lit_share": 0.0, "window_light": 0.0, "street_light": 0.0},
    "tarde": {"horizon": (1.0, 0.66, 0.40), "zenith": (0.32, 0.40, 0.66), "ambient": (0.19, 0.16, 0.18),
              "sun_colour": (1.0, 0.58, 0.30), "haze_colour": (0.95, 0.68, 0.48), "glow_colour": (0.95, 0.68, 0.48),
              "haze_distance": 600.0, "clouds": 0.45, "cloud_colour": (1.0, 0.7, 0.5), "sun_glow": 0.8,
              "lit_share": 0.1, "window_light": 0.8, "street_light": 0.15},
    "noite": {"horizon": (0.035, 0.05, 0.13), "zenith": (0.006, 0.01, 0.035), "ambient": (0.018, 0.022, 0.04),
              "sun_colour": (0.0, 0.0, 0.0), "haze_colour": (0.03, 0.04, 0.09), "glow_colour": (0.22, 0.11, 0.04),
              "haze_distance": 500.0, "clouds": 0.0, "cloud_colour": (0.05, 0.05, 0.08), "sun_glow": 0.0,
              "lit_share": 0.38, "window_light": 2.2, "street_light": 1.0},
}
STREET_Z = -6.0            # the street, a floor and a half below the room
STREET_LAMP_Y = 24.0       # the kerb on the far side of the street
STREET_LAMP_STEP = 18.0
NEAR_KERB_Y = 4.0          # the pavement below the window ends here
NEAR_LAMP_Y = 4.6
STREET_MID_Y = 14.0
ZEBRA_X = (-11.0, -4.0)    # the crossing, where the top framing looks down through the glass
LAMP_COLOUR = (1.0, 0.71, 0.42)


# ---------------------------------------------------------------- helpers

def _link(obj, coll):
    coll.objects.link(obj)
    return obj


def mesh_object(name, make, coll, material=None, location=(0, 0, 0), rotation=(0, 0, 0), smooth=False):
    """Runs a bpy.ops primitive, then moves the result into `coll`."""
    make()
    obj = bpy.context.active_object
    obj.name = name
    for c in list(obj.users_collection):
        c.objects.unlink(obj)
    coll.objects.link(obj)
    obj.location = location
    obj.rotation_euler = rotation
    if material:
        obj.data.materials.append(material)
    if smooth:
        for p in obj.data.polygons:
            p.use_smooth = True
    return obj


def box(name, size, location, coll, material, rotation=(0, 0, 0), bevel=0.0):
    obj = mesh_object(name, lambda: bpy.ops.mesh.primitive_cube_add(size=1), coll, material, location, rotation)
    obj.scale = size
    bpy.context.view_layer.objects.active = obj
    # Scale only: with the location baked in too, a rotation set later would swing the box about the
    # parent's origin instead of its own centre.
    bpy.ops.object.transform_apply(location=False, rotation=False, scale=True)
    if bevel > 0:
        m = obj.modifiers.new("bevel", 'BEVEL')
        m.width = bevel
        m.segments = 3
        m.limit_method = 'ANGLE'
        for p in obj.data.polygons:
            p.use_smooth = True
        obj.data.use_auto_smooth = True
    return obj


def cylinder(name, radius, z0, z1, xy, coll, material, vertices=64, rotation=None, bevel=0.0):
    depth = z1 - z0
    obj = mesh_object(name, lambda: bpy.ops.mesh.primitive_cylinder_add(vertices=vertices, radius=radius, depth=depth),
                      coll, material, (xy[0], xy[1], z0 + depth / 2))
    for p in obj.data.polygons:
        p.use_smooth = abs(p.normal.z) < 0.5
    if rotation is not None:
        obj.rotation_euler = rotation
    if bevel > 0:
        m = obj.modifiers.new("bevel", 'BEVEL')
        m.width = bevel
        m.segments = 2
        m.limit_method = 'ANGLE'
        obj.data.use_auto_smooth = True
    return obj


def tube(name, a, b, radius, coll, material, vertices=24):
    a, b = Vector(a), Vector(b)
    d = b - a
    obj = mesh_object(name, lambda: bpy.ops.mesh.primitive_cylinder_add(vertices=vertices, radius=radius, depth=d.length),
                      coll, material, (a + b) / 2, smooth=True)
    obj.rotation_euler = d.to_track_quat('Z', 'Y').to_euler()
    return obj


class Nodes:
    """Small builder for shader node trees."""

    def __init__(self, mat):
        self.nt = mat.node_tree
        self.nt.nodes.clear()
        self.out = self.nt.nodes.new("ShaderNodeOutputMaterial")

    def n(self, kind, **inputs):
        node = self.nt.nodes.new(kind)
        for key, value in inputs.items():
            if key.startswith("_"):
                setattr(node, key[1:], value)
            elif key[0] == "i" and key[1:].isdigit():  # by index, for repeated names
                self.set(node.inputs[int(key[1:])], value)
            else:
                self.set(node.inputs[key], value)
        return node

    def set(self, socket, value):
        if hasattr(value, "bl_idname") or isinstance(value, bpy.types.NodeSocket):
            out = value if isinstance(value, bpy.types.NodeSocket) else value.outputs[0]
            self.nt.links.new(out, socket)
        else:
            socket.default_value = value

    def math(self, op, a, b=0.0, c=None, clamp=False):
        node = self.n("ShaderNodeMath", _operation=op, _use_clamp=clamp)
        self.set(node.inputs[0], a)
        self.set(node.inputs[1], b)
        if c is not None:
            self.set(node.inputs[2], c)
        return node.outputs[0]

    def ramp(self, fac, stops):
        node = self.n("ShaderNodeValToRGB")
        self.set(node.inputs[0], fac)
        els = node.color_ramp.elements
        for i, (pos, col) in enumerate(stops):
            e = els[i] if i < 2 else els.new(pos)
            e.position = pos
            e.color = (*col, 1.0)
        return node.outputs[0]

    def aov(self, name, value):
        node = self.nt.nodes.new("ShaderNodeOutputAOV")
        node.name = name
        key = "Color" if isinstance(value, bpy.types.NodeSocket) and value.type in ('RGBA', 'VECTOR') else "Value"
        self.set(node.inputs[key], value)
        return node

    def output(self, shader):
        self.nt.links.new(shader.outputs[0] if not isinstance(shader, bpy.types.NodeSocket) else shader,
                          self.out.inputs["Surface"])


def material(name):
    mat = bpy.data.materials.new(name)
    mat.use_nodes = True
    return mat


def principled(name, colour, roughness=0.5, metallic=0.0, specular=0.5, aovs=None, **extra):
    mat = material(name)
    g = Nodes(mat)
    bsdf = g.n("ShaderNodeBsdfPrincipled")
    g.set(bsdf.inputs["Base Color"], (*colour, 1.0) if not isinstance(colour, bpy.types.NodeSocket) else colour)
    g.set(bsdf.inputs["Roughness"], roughness)
    g.set(bsdf.inputs["Metallic"], metallic)
    g.set(bsdf.inputs["Specular"], specular)
    for key, value in extra.items():
        g.set(bsdf.inputs[key.replace("_", " ").title()], value)
    for aov_name, value in (aovs or {}).items():
        g.aov(aov_name, value)
    g.output(bsdf)
    return mat


# ---------------------------------------------------------------- materials

def wood_material(name, light, dark, scale=6.0, stretch=12.0, roughness=0.35, planks=False):
    """Procedural wood: rings from a distorted wave along x, pores from stretched noise."""
    mat = material(name)
    g = Nodes(mat)
    tc = g.n("ShaderNodeTexCoord")
    mapping = g.n("ShaderNodeMapping", Vector=tc.outputs["Object"], Scale=(1.0, stretch, stretch))
    wave = g.n("ShaderNodeTexWave", Vector=mapping, Scale=scale, Distortion=7.0, Detail=3.0,
               _wave_type='RINGS', _rings_direction='X')
    pores = g.n("ShaderNodeTexNoise", Vector=g.n("ShaderNodeMapping", Vector=tc.outputs["Object"],
                                                    Scale=(4.0, 160.0, 160.0)), Scale=30.0, Detail=2.0)
    fac = g.math('MULTIPLY_ADD', wave.outputs["Fac"], 0.75, g.math('MULTIPLY', pores.outputs["Fac"], 0.35))
    if planks:
        # Boards 0.16 m wide with a little tone change each.
        bx = g.math('FLOOR', g.math('DIVIDE', g.n("ShaderNodeSeparateXYZ", Vector=tc.outputs["Object"]).outputs["Y"], 0.16))
        tone = g.n("ShaderNodeTexWhiteNoise", _noise_dimensions='1D', W=bx)
        fac = g.math('MULTIPLY_ADD', tone.outputs["Value"], 0.3, fac)
    col = g.ramp(fac, [(0.15, dark), (0.85, light)])
    bsdf = g.n("ShaderNodeBsdfPrincipled", Roughness=roughness, Specular=0.45)
    g.set(bsdf.inputs["Base Color"], col)
    g.set(bsdf.inputs["Clearcoat"], 0.25)
    g.set(bsdf.inputs["Clearcoat Roughness"], 0.12)
    bump = g.n("ShaderNodeBump", Strength=0.12, Distance=0.0005, Height=pores.outputs["Fac"])
    g.set(bsdf.inputs["Normal"], bump)
    g.output(bsdf)
    return mat


def plaster_material(name, colour):
    mat = material(name)
    g = Nodes(mat)
    noise = g.n("ShaderNodeTexNoise", Scale=180.0, Detail=6.0, Roughness=0.6)
    bump = g.n("ShaderNodeBump", Strength=0.02, Distance=0.0003, Height=noise.outputs["Fac"])
    tone = g.n("ShaderNodeTexNoise", Scale=2.5, Detail=2.0)
    col = g.n("ShaderNodeMixRGB", _blend_type='MULTIPLY', Fac=0.08, Color1=(*colour, 1), Color2=tone.outputs["Color"])
    bsdf = g.n("ShaderNodeBsdfPrincipled", Roughness=0.85, Specular=0.3)
    g.set(bsdf.inputs["Base Color"], col)
    g.set(bsdf.inputs["Normal"], bump)
    g.aov("wall", 1.0)  # where the noise figure is measured
    g.output(bsdf)
    return mat


def brushed_metal(name, colour, roughness=0.28):
    mat = material(name)
    g = Nodes(mat)
    tc = g.n("ShaderNodeTexCoord")
    # The brushing is kept a few pixels wide even in the nearest framing, with a gentle anisotropy:
    # finer streaks and a stronger stretch turn each sample's roughness into a coin toss, which the
    # plates show as grain on the metal wherever the sun glints in it.
    streak = g.n("ShaderNodeTexNoise", Vector=g.n("ShaderNodeMapping", Vector=tc.outputs["Object"], Scale=(1.0, 120.0, 1.0)),
                 Scale=4.0, Detail=1.0)
    rough = g.math('MULTIPLY_ADD', streak.outputs["Fac"], 0.05, roughness - 0.02)
    bsdf = g.n("ShaderNodeBsdfPrincipled", Metallic=1.0, **{"Base Color": (*colour, 1)}, Anisotropic=0.3)
    g.set(bsdf.inputs["Roughness"], rough)
    g.output(bsdf)
    return mat


def platter_material(name):
    """Machined aluminium rim with three static rows of strobe dots; the fourth row (the live
    band) carries the strobe map in an AOV: angle, coverage, position across the dots."""
    mat = material(name)
    g = Nodes(mat)
    geo = g.n("ShaderNodeNewGeometry")
    pos = g.n("ShaderNodeSeparateXYZ", Vector=geo.outputs["Position"])
    cx, cy = RECORD_CENTRE.x, RECORD_CENTRE.y
    dx = g.math('SUBTRACT', pos.outputs["X"], cx)
    dy = g.math('SUBTRACT', pos.outputs["Y"], cy)
    turn = g.math('FRACT', g.math('ADD', g.math('DIVIDE', g.math('ARCTAN2', dy, dx), 2 * math.pi), 1.0))
    z = pos.outputs["Z"]
    side = g.math('LESS_THAN', g.n("ShaderNodeSeparateXYZ", Vector=geo.outputs["Normal"]).outputs["Z"], 0.5)
    band0, band1 = STROBE_BAND
    in_band = g.math('MULTIPLY', g.math('GREATER_THAN', z, band0), g.math('LESS_THAN', z, band1))
    live = g.math('MULTIPLY', in_band, side)
    across = g.math('DIVIDE', g.math('SUBTRACT', z, band0), band1 - band0, clamp=True)
    comb = g.n("ShaderNodeCombineXYZ", X=g.math('MULTIPLY', turn, live), Y=live, Z=g.math('MULTIPLY', across, live))
    g.aov("strobe", comb.outputs[0])
    # Static dots below the live band: three rows with 183, 186 and 150 dots.
    dots = None
    for k, (count, z0) in enumerate(((183, PLATTER_Z0 + 0.002), (186, PLATTER_Z0 + 0.0065), (150, PLATTER_Z0 + 0.011))):
        f = g.math('SUBTRACT', g.math('FRACT', g.math('MULTIPLY', turn, count)), 0.5)
        v = g.math('DIVIDE', g.math('SUBTRACT', z, z0 + 0.002), 0.0016)
        d = g.math('LESS_THAN', g.math('ADD', g.math('POWER', g.math('MULTIPLY', f, 2.4), 2.0), g.math('POWER', v, 2.0)), 1.0)
        dots = d if dots is None else g.math('MAXIMUM', dots, d)
    dots = g.math('MULTIPLY', dots, side)
    col = g.n("ShaderNodeMixRGB", Fac=dots, Color1=(0.82, 0.83, 0.85, 1), Color2=(0.25, 0.25, 0.26, 1))
    bsdf = g.n("ShaderNodeBsdfPrincipled", Metallic=1.0, Roughness=0.22)
    g.set(bsdf.inputs["Base Color"], col)
    g.output(bsdf)
    return mat


def vinyl_material(name, mode="plate"):
    """mode: "plate" (what the plates show), "specular" (its reflection only), "diffuse" (white, for the
    irradiance pass)."""
    mat = material(name)
    g = Nodes(mat)
    if mode == "diffuse":
        bsdf = g.n("ShaderNodeBsdfDiffuse", Color=(1, 1, 1, 1), Roughness=0.0)
    else:
        geo = g.n("ShaderNodeNewGeometry")
        pos = g.n("ShaderNodeSeparateXYZ", Vector=geo.outputs["Position"])
        r = g.math('SQRT', g.math('ADD', g.math('POWER', g.math('SUBTRACT', pos.outputs["X"], RECORD_CENTRE.x), 2.0),
                                  g.math('POWER', g.math('SUBTRACT', pos.outputs["Y"], RECORD_CENTRE.y), 2.0)))
        grooves = g.math('MULTIPLY', g.math('SINE', g.math('MULTIPLY', r, 40000.0)), 0.5)
        bump = g.n("ShaderNodeBump", Strength=0.04, Distance=0.0001, Height=grooves)
        base = (0.0, 0.0, 0.0, 1) if mode == "specular" else (0.012, 0.012, 0.013, 1)
        bsdf = g.n("ShaderNodeBsdfPrincipled", **{"Base Color": base}, Roughness=0.16, Specular=0.5)
        g.set(bsdf.inputs["Normal"], bump)
    g.aov("record", 1.0)
    g.output(bsdf)
    return mat


def _param(g, name, value):
    """A named constant node that set_time() retunes: an RGB node for 3-tuples, a value node else."""
    if name == "sun_dir":
        node = g.n("ShaderNodeCombineXYZ", X=value[0], Y=value[1], Z=value[2])
    elif isinstance(value, (tuple, list)):
        node = g.n("ShaderNodeRGB")
        node.outputs[0].default_value = (*value, 1.0)
    else:
        node = g.n("ShaderNodeValue")
        node.outputs[0].default_value = value
    node.name = name
    node.label = name
    return node.outputs[0]


def _vec(g, a, b, op):
    node = g.n("ShaderNodeVectorMath", _operation=op)
    g.set(node.inputs[0], a)
    if b is not None:
        g.set(node.inputs[1], b)
    return node.outputs["Value" if op in ('DOT_PRODUCT', 'LENGTH', 'DISTANCE') else "Vector"]


def _mix(g, fac, a, b, blend='MIX'):
    node = g.n("ShaderNodeMixRGB", _blend_type=blend)
    g.set(node.inputs["Fac"], fac)
    g.set(node.inputs["Color1"], a)
    g.set(node.inputs["Color2"], b)
    return node.outputs[0]


def _haze(g, colour, pos_world):
    """Aerial perspective: the farther, the more of the time's haze colour (denser near the street,
    where at night the street lights glow in it)."""
    dist = _vec(g, pos_world, None, 'LENGTH')
    t = g.math('SUBTRACT', 1.0, g.math('EXPONENT', g.math('DIVIDE', g.math('MULTIPLY', dist, -1.0), _param(g, "haze_distance", 800.0))))
    z = g.n("ShaderNodeSeparateXYZ", Vector=pos_world).outputs["Z"]
    low = g.math('SUBTRACT', 1.0, g.math('DIVIDE', g.math('ADD', z, -STREET_Z), 70.0, clamp=True))
    haze = _mix(g, g.math('MULTIPLY', low, low), _param(g, "haze_colour", (0.8, 0.85, 0.95)), _param(g, "glow_colour", (0.8, 0.85, 0.95)))
    return _mix(g, t, colour, haze)


def _emit_view(g, colour):
    """Emission only: the view is seen by the camera through the glass and lights nothing."""
    g.output(g.n("ShaderNodeEmission", Color=colour, Strength=1.0))


def building_material(name):
    """Façades seen from the window: the building's colour (the object's colour) under the time's sky and
    sun, a grid of windows, some of them lit, and the haze of the distance. Emission only, since the
    view is its own light group, exposed apart from the room."""
    mat = material(name)
    g = Nodes(mat)
    tc = g.n("ShaderNodeTexCoord")
    info = g.n("ShaderNodeObjectInfo")
    geo = g.n("ShaderNodeNewGeometry")
    n = g.n("ShaderNodeSeparateXYZ", Vector=geo.outputs["Normal"])
    p = g.n("ShaderNodeSeparateXYZ", Vector=tc.outputs["Object"])
    # Face coordinates: across the face and up, whichever way the face looks.
    u = g.math('ADD', g.math('MULTIPLY', p.outputs["X"], g.math('ABSOLUTE', n.outputs["Y"])),
               g.math('MULTIPLY', p.outputs["Y"], g.math('ABSOLUTE', n.outputs["X"])))
    v = p.outputs["Z"]
    bay, floor_h = 3.0, 3.2
    cu, cv = g.math('FLOOR', g.math('DIVIDE', u, bay)), g.math('FLOOR', g.math('DIVIDE', v, floor_h))
    fu, fv = g.math('FRACT', g.math('DIVIDE', u, bay)), g.math('FRACT', g.math('DIVIDE', v, floor_h))
    inside = g.math('MULTIPLY', g.math('MULTIPLY', g.math('GREATER_THAN', fu, 0.2), g.math('LESS_THAN', fu, 0.8)),
                    g.math('MULTIPLY', g.math('GREATER_THAN', fv, 0.28), g.math('LESS_THAN', fv, 0.82)))
    wall = g.math('LESS_THAN', g.math('ABSOLUTE', n.outputs["Z"]), 0.5)
    window = g.math('MULTIPLY', inside, wall)
    seed = g.n("ShaderNodeCombineXYZ", X=cu, Y=cv, Z=g.math('ADD', g.math('MULTIPLY', info.outputs["Random"], 977.0),
                                                             g.math('MULTIPLY', n.outputs["X"], 3.0)))
    cell = g.n("ShaderNodeTexWhiteNoise", _noise_dimensions='3D', Vector=seed)
    # Light on the façade: the sky's ambient and the sun where the face turns to it.
    sun = g.math('MAXIMUM', _vec(g, geo.outputs["Normal"], _param(g, "sun_dir", (0.0, 0.7, 0.7)), 'DOT_PRODUCT'), 0.0)
    lit_by = _mix(g, 1.0, _param(g, "ambient", (0.3, 0.35, 0.45)),
                  _mix(g, sun, (0, 0, 0, 1), _param(g, "sun_colour", (1.0, 0.95, 0.9))), 'ADD')
    facade = _mix(g, 1.0, info.outputs["Color"], lit_by, 'MULTIPLY')
    # Unlit windows: dark glass with a little of the sky in it, each pane a little different.
    pane = _mix(g, g.math('MULTIPLY_ADD', cell.outputs["Value"], 0.45, 0.05), _mix(g, 0.25, facade, (0, 0, 0, 1)),
                _param(g, "horizon", (0.7, 0.8, 0.95)))
    share = _param(g, "lit_share", 0.0)
    on = g.math('MULTIPLY', window, g.math('LESS_THAN', g.n("ShaderNodeSeparateRGB", Image=cell.outputs["Color"]).outputs["B"], share))
    warm = _mix(g, cell.outputs["Value"], (1.0, 0.55, 0.22, 1), (0.85, 0.82, 0.75, 1))
    lamp = g.math('MULTIPLY', g.math('MULTIPLY_ADD', g.n("ShaderNodeSeparateRGB", Image=cell.outputs["Color"]).outputs["G"], 0.8, 0.4),
                  _param(g, "window_light", 0.0))
    lit = _mix(g, 1.0, warm, g.n("ShaderNodeCombineXYZ", X=lamp, Y=lamp, Z=lamp).outputs[0], 'MULTIPLY')
    col = _mix(g, window, facade, pane)
    col = _mix(g, on, col, _mix(g, 1.0, pane, lit, 'ADD'))
    _emit_view(g, _haze(g, col, geo.outputs["Position"]))
    mat.cycles.sample_as_light = False
    return mat


def street_material(name):
    """The street below: asphalt with its markings and the near pavement under the time's light, and at
    night the pools of the street lamps on both kerbs. Seen from above (the top framing looks down
    through the glass), the markings and the pools are what the view has to show."""
    mat = material(name)
    g = Nodes(mat)
    geo = g.n("ShaderNodeNewGeometry")
    p = g.n("ShaderNodeSeparateXYZ", Vector=geo.outputs["Position"])
    x, y = p.outputs["X"], p.outputs["Y"]
    lit_by = _mix(g, 1.0, _param(g, "ambient", (0.3, 0.35, 0.45)), _param(g, "sun_colour", (1.0, 0.95, 0.9)), 'ADD')

    def band(v, lo, hi):
        return g.math('MULTIPLY', g.math('GREATER_THAN', v, lo), g.math('LESS_THAN', v, hi))

    def stripes(v, period, duty):
        return g.math('LESS_THAN', g.math('FRACT', g.math('DIVIDE', v, period)), duty)

    road = band(y, NEAR_KERB_Y, STREET_LAMP_Y - 1.0)
    # Paint: a zebra crossing (bands along the road's width, half a metre apart) and a dashed centre line.
    zebra = g.math('MULTIPLY', band(x, *ZEBRA_X), stripes(x, 1.0, 0.5))
    centre = g.math('MULTIPLY', band(y, STREET_MID_Y - 0.08, STREET_MID_Y + 0.08), stripes(x, 6.0, 0.5))
    paint = g.math('MULTIPLY', road, g.math('MAXIMUM', zebra, centre))
    pavement = g.math('SUBTRACT', 1.0, road)
    # Paving slabs, dark with wear: a darker joint every metre and a half.
    joints = g.math('MAXIMUM', stripes(x, 1.5, 0.06), stripes(y, 1.5, 0.06))
    albedo = _mix(g, pavement, (0.09, 0.09, 0.095, 1), _mix(g, joints, (0.15, 0.145, 0.135, 1), (0.07, 0.07, 0.068, 1)))
    albedo = _mix(g, paint, albedo, (0.72, 0.72, 0.7, 1))
    surface = _mix(g, 1.0, albedo, lit_by, 'MULTIPLY')

    # Lamp pools every STREET_LAMP_STEP metres along each kerb, the near row half a step along.
    def pools(y_kerb, shift, falloff, strength):
        fx = g.math('SUBTRACT', g.math('FRACT', g.math('DIVIDE', g.math('ADD', x, shift), STREET_LAMP_STEP)), 0.5)
        dy = g.math('DIVIDE', g.math('SUBTRACT', y, y_kerb), STREET_LAMP_STEP)
        d2 = g.math('ADD', g.math('MULTIPLY', fx, fx), g.math('MULTIPLY', dy, dy))
        return g.math('MULTIPLY', g.math('EXPONENT', g.math('MULTIPLY', d2, -falloff)), strength)

    # The near row is seen from close by: its pools spread wider and read brighter.
    pool = g.math('MULTIPLY', g.math('ADD', pools(STREET_LAMP_Y, 0.0, 14.0, 1.0), pools(NEAR_LAMP_Y, STREET_LAMP_STEP / 2, 6.0, 1.5)),
                  _param(g, "street_light", 0.0))
    # The pools light the paint and the paving more than the asphalt.
    glow = g.n("ShaderNodeCombineXYZ", X=pool, Y=g.math('MULTIPLY', pool, 0.55), Z=g.math('MULTIPLY', pool, 0.22)).outputs[0]
    col = _mix(g, 1.0, surface, _mix(g, 1.0, glow, _mix(g, 1.0, albedo, (4.0, 4.0, 4.0, 1), 'MULTIPLY'), 'MULTIPLY'), 'ADD')
    _emit_view(g, _haze(g, col, geo.outputs["Position"]))
    mat.cycles.sample_as_light = False
    return mat


def lamp_head_material(name):
    """The street lamps' heads: sodium-warm points at night, grey by day."""
    mat = material(name)
    g = Nodes(mat)
    geo = g.n("ShaderNodeNewGeometry")
    k = _param(g, "street_light", 0.0)
    glow = g.n("ShaderNodeCombineXYZ", X=g.math('MULTIPLY', k, 12.0), Y=g.math('MULTIPLY', k, 7.0), Z=g.math('MULTIPLY', k, 3.0))
    col = _mix(g, 1.0, _mix(g, 1.0, (0.15, 0.15, 0.15, 1), _param(g, "ambient", (0.3, 0.35, 0.45)), 'MULTIPLY'), glow.outputs[0], 'ADD')
    _emit_view(g, _haze(g, col, geo.outputs["Position"]))
    mat.cycles.sample_as_light = False
    return mat


def sky_material(name):
    """The sky behind the city (a dome seen only through the window): horizon to zenith, a glow round
    the sun, clouds by day; the colours are the time's."""
    mat = material(name)
    g = Nodes(mat)
    geo = g.n("ShaderNodeNewGeometry")
    d = _vec(g, geo.outputs["Position"], None, 'NORMALIZE')
    ds = g.n("ShaderNodeSeparateXYZ", Vector=d)
    el = g.math('MAXIMUM', ds.outputs["Z"], 0.0)
    t = g.math('POWER', g.math('DIVIDE', el, 0.55, clamp=True), 0.6)
    col = _mix(g, t, _param(g, "horizon", (0.7, 0.8, 0.95)), _param(g, "zenith", (0.25, 0.42, 0.8)))
    # Clouds: noise on the sky's plane above, thinning towards the horizon's haze.
    plane = g.n("ShaderNodeCombineXYZ", X=g.math('DIVIDE', ds.outputs["X"], g.math('ADD', ds.outputs["Z"], 0.12)),
                Y=g.math('DIVIDE', ds.outputs["Y"], g.math('ADD', ds.outputs["Z"], 0.12)), Z=0.0)
    noise = g.n("ShaderNodeTexNoise", Vector=g.n("ShaderNodeMapping", Vector=plane.outputs[0], Scale=(1.0, 2.5, 1.0)),
                Scale=1.6, Detail=6.0, Roughness=0.55)
    cover = g.math('MULTIPLY', g.n("ShaderNodeMapRange", Value=noise.outputs["Fac"], i1=0.48, i2=0.72).outputs[0],
                   _param(g, "clouds", 0.0))
    cover = g.math('MULTIPLY', cover, g.math('DIVIDE', el, 0.08, clamp=True))
    col = _mix(g, cover, col, _param(g, "cloud_colour", (1.0, 1.0, 1.0)))
    # The sun's glow (and its disc, which the blinds of the frame mostly hide).
    cosang = _vec(g, d, _param(g, "sun_dir", (0.0, 0.7, 0.7)), 'DOT_PRODUCT')
    glow = g.math('ADD', g.math('MULTIPLY', g.math('EXPONENT', g.math('MULTIPLY', g.math('SUBTRACT', cosang, 1.0), 40.0)), 0.6),
                  g.math('MULTIPLY', g.math('GREATER_THAN', cosang, 0.99996), 6.0))
    glow = g.math('MULTIPLY', glow, _param(g, "sun_glow", 0.0))
    col = _mix(g, glow, col, _param(g, "sun_colour", (1.0, 0.95, 0.9)), 'ADD')
    # Below the horizon (past the street's end) and close to it: the haze.
    low = g.math('SUBTRACT', 1.0, g.math('DIVIDE', g.math('ADD', ds.outputs["Z"], 0.02), 0.06, clamp=True))
    haze = _mix(g, 0.5, _param(g, "haze_colour", (0.8, 0.85, 0.95)), _param(g, "glow_colour", (0.8, 0.85, 0.95)))
    col = _mix(g, low, col, haze)
    _emit_view(g, col)
    mat.cycles.sample_as_light = False
    return mat


def glass_material(name, tint, reflect, aovs):
    """Thin glass: straight transparency (so the sun and the view pass) plus a reflection."""
    mat = material(name)
    g = Nodes(mat)
    lp = g.n("ShaderNodeLightPath")
    for aov_name, value in aovs.items():
        g.aov(aov_name, value if not callable(value) else value(g, lp))
    fres = g.n("ShaderNodeLayerWeight", Blend=0.15)
    t = g.n("ShaderNodeBsdfTransparent", Color=(*tint, 1))
    gl = g.n("ShaderNodeBsdfGlossy", Roughness=0.02, Color=(1, 1, 1, 1))
    mix = g.n("ShaderNodeMixShader", Fac=g.math('MULTIPLY', fres.outputs["Fresnel"], reflect / 0.1), i1=t, i2=gl)
    g.output(mix)
    mat.blend_method = 'BLEND'
    return mat


# ---------------------------------------------------------------- the room

class Room:
    """Builds the scene and keeps handles the render script needs."""

    def __init__(self, seed=7):
        self.rng = random.Random(seed)
        bpy.ops.wm.read_factory_settings(use_empty=True)
        self.scene = bpy.context.scene
        self.scene.unit_settings.system = 'METRIC'
        root = self.scene.collection
        self.coll = {}
        for name in ("room", "turntable", "arm", "props", "outside", "front", "lights", "cameras"):
            c = bpy.data.collections.new(name)
            root.children.link(c)
            self.coll[name] = c
        self.materials = {}
        self.lights = {}
        self.arm_root = None
        self.cameras = {}
        self.build()

    # -- structure
    def build(self):
        self.build_room()
        self.build_print()
        self.build_desk()
        self.build_turntable()
        self.build_arm()
        self.build_props()
        self.build_outside()
        self.build_lights()
        self.build_cameras()
        self.build_front()

    def build_room(self):
        c = self.coll["room"]
        wall = plaster_material("wall", (0.78, 0.74, 0.68))
        self.materials["wall"] = wall
        x0, x1, z0, z1 = WINDOW
        t = 0.16
        yc = WALL_Y + t / 2
        # The wall around the window opening.
        box("wall_left", (x0 + 1.9, t, 2.7), ((x0 - 1.9) / 2, yc, 1.35), c, wall)
        box("wall_right", (2.0 - x1, t, 2.7), ((x1 + 2.0) / 2, yc, 1.35), c, wall)
        box("wall_below", (x1 - x0, t, z0), ((x0 + x1) / 2, yc, z0 / 2), c, wall)
        box("wall_above", (x1 - x0, t, 2.7 - z1), ((x0 + x1) / 2, yc, (z1 + 2.7) / 2), c, wall)
        box("wall_side", (t, 4.0, 2.7), (-1.9 - t / 2, WALL_Y - 2.0, 1.35), c, wall)
        box("wall_side_r", (t, 4.0, 2.7), (2.0 + t / 2, WALL_Y - 2.0, 1.35), c, wall)
        box("wall_front", (4.0, t, 2.7), (0.05, WALL_Y - 4.0, 1.35), c, wall)
        ceiling = principled("ceiling", (0.85, 0.84, 0.82), roughness=0.9)
        box("ceiling", (4.0, 4.2, 0.05), (0.05, WALL_Y - 2.0, 2.725), c, ceiling)
        floor = wood_material("floor", (0.42, 0.27, 0.15), (0.22, 0.12, 0.06), scale=3.0, stretch=3.0, roughness=0.45, planks=True)
        box("floor", (4.0, 4.2, 0.04), (0.05, WALL_Y - 2.0, -0.02), c, floor)
        skirting = principled("skirting", (0.86, 0.85, 0.82), roughness=0.4)
        box("skirting", (3.9, 0.015, 0.09), (0.05, WALL_Y - 0.0075, 0.045), c, skirting)
        # Window: frame, cross bars, sill, glass.
        frame = principled("frame", (0.88, 0.87, 0.84), roughness=0.35)
        fw, fd = 0.06, 0.07
        fy = WALL_Y + 0.06
        box("frame_l", (fw, fd, z1 - z0), (x0 + fw / 2, fy, (z0 + z1) / 2), c, frame, bevel=0.004)
        box("frame_r", (fw, fd, z1 - z0), (x1 - fw / 2, fy, (z0 + z1) / 2), c, frame, bevel=0.004)
        box("frame_b", (x1 - x0, fd, fw), ((x0 + x1) / 2, fy, z0 + fw / 2), c, frame, bevel=0.004)
        box("frame_t", (x1 - x0, fd, fw), ((x0 + x1) / 2, fy, z1 - fw / 2), c, frame, bevel=0.004)
        box("bar_v", (0.04, fd * 0.8, z1 - z0), ((x0 + x1) / 2, fy, (z0 + z1) / 2), c, frame, bevel=0.003)
        box("bar_h", (x1 - x0, fd * 0.8, 0.04), ((x0 + x1) / 2, fy, z0 + (z1 - z0) * 0.62), c, frame, bevel=0.003)
        box("sill", (x1 - x0 + 0.12, 0.15, 0.03), ((x0 + x1) / 2, WALL_Y + 0.005, z0 - 0.015), c, frame, bevel=0.004)
        # Window glass; "glass" marks it and "glassdust" marks it behind the turntable's dust cover.
        def behind_cover(g, lp):
            return g.math('GREATER_THAN', lp.outputs["Transparent Depth"], 0.5)
        glass = glass_material("window_glass", (0.96, 0.97, 0.97), 0.08, {"glass": 1.0, "glassdust": behind_cover})
        self.materials["window_glass"] = glass
        g = mesh_object("glass", lambda: bpy.ops.mesh.primitive_plane_add(size=1), c, glass,
                        ((x0 + x1) / 2, fy + 0.005, (z0 + z1) / 2), (math.pi / 2, 0, 0))
        g.scale = (x1 - x0 - 0.02, z1 - z0 - 0.02, 1)
        g.visible_shadow = False
        # Curtain gathered at the left of the window.
        cloth = self.fabric((0.72, 0.66, 0.56))
        curtain = mesh_object("curtain", lambda: bpy.ops.mesh.primitive_grid_add(x_subdivisions=60, y_subdivisions=4, size=1),
                              c, cloth, (x0 - 0.12, WALL_Y - 0.08, (z1 + 0.25 + 0.2) / 2), (math.pi / 2, 0, 0), smooth=True)
        curtain.scale = (0.34, z1 + 0.25 - 0.2, 1)
        for v in curtain.data.vertices:
            v.co.z += 0.035 * math.sin(v.co.x * 2 * math.pi * 7)
        curtain.modifiers.new("solid", 'SOLIDIFY').thickness = 0.004

    def build_print(self):
        """A framed print on the wall, right of the window."""
        c = self.coll["room"]
        frame = principled("print_frame", (0.03, 0.03, 0.03), roughness=0.3)
        cx, cz, w, h = 0.52, 1.72, 0.50, 0.64
        y = WALL_Y - 0.012
        box("print_frame", (w, 0.024, h), (cx, y, cz), c, frame, bevel=0.003)
        art = material("print_art")
        g = Nodes(art)
        tc = g.n("ShaderNodeTexCoord")
        warp = g.n("ShaderNodeTexNoise", Vector=tc.outputs["Object"], Scale=1.4, Detail=1.0)
        bands = g.n("ShaderNodeTexWave", Vector=warp.outputs["Color"], Scale=1.2, Distortion=2.0, _wave_type='BANDS')
        col = g.ramp(bands.outputs["Fac"], [(0.2, (0.75, 0.35, 0.12)), (0.45, (0.92, 0.82, 0.62)),
                                           (0.7, (0.12, 0.25, 0.38)), (0.9, (0.85, 0.6, 0.25))])
        bsdf = g.n("ShaderNodeBsdfPrincipled", Roughness=0.6, Specular=0.3)
        g.set(bsdf.inputs["Base Color"], col)
        g.output(bsdf)
        mat_board = principled("print_mat", (0.86, 0.85, 0.8), roughness=0.8)
        box("print_board", (w - 0.03, 0.004, h - 0.03), (cx, y - 0.013, cz), c, mat_board)
        canvas = mesh_object("print", lambda: bpy.ops.mesh.primitive_plane_add(size=1), c, art,
                             (cx, y - 0.0155, cz), (math.pi / 2, 0, 0))
        canvas.scale = (w - 0.13, h - 0.13, 1)

    def fabric(self, colour):
        mat = material("fabric_%d" % len(self.materials))
        g = Nodes(mat)
        weave = g.n("ShaderNodeTexWave", Scale=400.0, Distortion=1.0, _wave_type='BANDS')
        bsdf = g.n("ShaderNodeBsdfPrincipled", **{"Base Color": (*colour, 1)}, Roughness=0.9, Sheen=0.6, Specular=0.2)
        g.set(bsdf.inputs["Normal"], g.n("ShaderNodeBump", Strength=0.15, Height=weave.outputs["Fac"]))
        g.output(bsdf)
        self.materials[mat.name] = mat
        return mat

    def build_desk(self):
        c = self.coll["room"]
        oak = wood_material("desk", (0.62, 0.44, 0.27), (0.36, 0.22, 0.11), scale=4.0, stretch=10.0, roughness=0.38)
        box("desk_top", (2.5, 0.78, 0.035), (-0.15, WALL_Y - 0.39 - 0.005, DESK_Z - 0.0175), c, oak, bevel=0.003)
        legs = principled("desk_legs", (0.05, 0.05, 0.05), roughness=0.4, metallic=0.8)
        for x in (-1.35, 1.05):
            for y in (WALL_Y - 0.72, WALL_Y - 0.08):
                box("desk_leg", (0.04, 0.04, DESK_Z - 0.035), (x, y, (DESK_Z - 0.035) / 2), c, legs)

    def build_turntable(self):
        c = self.coll["turntable"]
        walnut = wood_material("walnut", (0.40, 0.24, 0.13), (0.16, 0.08, 0.04), scale=5.0, stretch=14.0, roughness=0.3)
        top_plate = brushed_metal("top_plate", (0.72, 0.72, 0.73), roughness=0.3)
        black = principled("black_plastic", (0.02, 0.02, 0.02), roughness=0.35)
        rubber = principled("rubber", (0.015, 0.015, 0.015), roughness=0.75, specular=0.3)
        w, d, h = PLINTH
        z0 = DESK_Z + 0.012
        for sx in (-1, 1):
            for sy in (-1, 1):
                cylinder("foot", 0.024, DESK_Z, z0 + 0.004, (TT.x + sx * (w / 2 - 0.04), TT.y + sy * (d / 2 - 0.04)), c, rubber)
        box("plinth", (w, d, h - 0.006), (TT.x, TT.y, z0 + (h - 0.006) / 2), c, walnut, bevel=0.004)
        box("top_plate", (w - 0.004, d - 0.004, 0.006), (TT.x, TT.y, PLINTH_TOP - 0.003), c, top_plate, bevel=0.0015)
        platter = platter_material("platter")
        cylinder("platter", PLATTER_R, PLATTER_Z0, PLATTER_Z1, RECORD_CENTRE.xy, c, platter, vertices=128, bevel=0.001)
        cylinder("platter_shadow_gap", PLATTER_R + 0.003, PLINTH_TOP - 0.0005, PLATTER_Z0, RECORD_CENTRE.xy, c, black, vertices=96)
        mat_m = principled("mat", (0.025, 0.025, 0.025), roughness=0.8, specular=0.3)
        cylinder("mat", PLATTER_R - 0.004, PLATTER_Z1, MAT_TOP, RECORD_CENTRE.xy, c, mat_m, vertices=128)
        self.materials["vinyl"] = vinyl_material("vinyl")
        rec = cylinder("record", RECORD_R, MAT_TOP, RECORD_TOP, RECORD_CENTRE.xy, c, self.materials["vinyl"], vertices=192)
        self.record = rec
        label = principled("label", (0.82, 0.82, 0.8), roughness=0.6, aovs={"label": 1.0, "record": 1.0})
        self.materials["label"] = label
        cylinder("label", LABEL_R, RECORD_TOP - 0.0001, RECORD_TOP + 0.00015, RECORD_CENTRE.xy, c, label, vertices=128)
        chrome = principled("chrome", (0.9, 0.9, 0.9), roughness=0.08, metallic=1.0)
        self.materials["chrome"] = chrome
        cylinder("spindle", 0.0036, RECORD_TOP, RECORD_TOP + 0.014, RECORD_CENTRE.xy, c, chrome, vertices=24)
        # Arm base: a round plinth boss, the pivot housing, the arm rest and the lift lever.
        cylinder("arm_boss", 0.040, PLINTH_TOP - 0.001, PLINTH_TOP + 0.006, PIVOT.xy, c, top_plate, bevel=0.001)
        cylinder("arm_post", 0.016, PLINTH_TOP, RECORD_TOP + 0.004, PIVOT.xy, c, black, vertices=32)
        rest = PIVOT + Vector((0.012, -0.172, 0))
        cylinder("arm_rest", 0.004, PLINTH_TOP, RECORD_TOP + 0.010, rest.xy, c, black, vertices=16)
        box("arm_rest_cradle", (0.012, 0.01, 0.004), (rest.x, rest.y, RECORD_TOP + 0.012), c, rubber)
        cylinder("lift_base", 0.007, PLINTH_TOP, PLINTH_TOP + 0.024, (PIVOT.x + 0.045, PIVOT.y - 0.055), c, chrome)
        box("lift_lever", (0.006, 0.03, 0.004), (PIVOT.x + 0.045, PIVOT.y - 0.07, PLINTH_TOP + 0.024), c, black)
        # Controls: start/stop, speed buttons with their LEDs, pitch slider.
        front_y = TT.y - d / 2 + 0.035
        box("start_stop", (0.055, 0.028, 0.008), (TT.x - w / 2 + 0.05, front_y, PLINTH_TOP + 0.003), c, top_plate, bevel=0.002)
        self.led_points = {}
        led_mat = principled("led", (0.35, 0.02, 0.01), roughness=0.15, specular=0.6)
        for k, name in enumerate(("led33", "led45")):
            x = TT.x - w / 2 + 0.105 + k * 0.03
            box("speed_" + name, (0.018, 0.014, 0.006), (x, front_y, PLINTH_TOP + 0.002), c, black, bevel=0.0015)
            p = Vector((x, front_y + 0.014, PLINTH_TOP + 0.0015))
            mesh_object(name, lambda: bpy.ops.mesh.primitive_uv_sphere_add(radius=LED_RADIUS, segments=16, ring_count=8),
                        c, led_mat, p, smooth=True).scale = (1, 1, 0.6)
            self.led_points[name] = p + Vector((0, 0, 0.001))
        box("pitch_slot", (0.008, 0.09, 0.002), (TT.x + w / 2 - 0.03, TT.y - d / 2 + 0.08, PLINTH_TOP), c, black)
        box("pitch_knob", (0.014, 0.01, 0.008), (TT.x + w / 2 - 0.03, TT.y - d / 2 + 0.08, PLINTH_TOP + 0.004), c, black, bevel=0.002)
        # Dust cover, hinged at the back edge and open a little past upright, so it stands between the
        # turntable and the window: an open acrylic box (one sheet to look through, not two).
        acrylic = glass_material("acrylic", (0.80, 0.80, 0.82), 0.12, {})
        self.materials["acrylic"] = acrylic
        hinge = Vector((TT.x, TT.y + d / 2 + 0.004, PLINTH_TOP + 0.004))
        self.cover_hinge = hinge
        self.cover_angle = math.radians(100)
        cover = box("dust_cover", (w + 0.004, d + 0.002, 0.072), (0, -(d + 0.002) / 2, 0.036), c, acrylic, bevel=0.003)
        me = cover.data
        bpy.context.view_layer.objects.active = cover
        bpy.ops.object.mode_set(mode='EDIT')
        bpy.ops.mesh.select_all(action='DESELECT')
        bpy.ops.object.mode_set(mode='OBJECT')
        bottom = [p.index for p in me.polygons if p.normal.z < -0.9]
        for i in bottom:
            me.polygons[i].select = True
        bpy.ops.object.mode_set(mode='EDIT')
        bpy.ops.mesh.delete(type='FACE')
        bpy.ops.object.mode_set(mode='OBJECT')
        cover.visible_shadow = False
        pivot = bpy.data.objects.new("dust_cover_hinge", None)
        c.objects.link(pivot)
        pivot.location = hinge
        # A negative turn about x lifts the front edge (local -y) up and over towards the wall.
        pivot.rotation_euler = (-self.cover_angle, 0, 0)
        cover.parent = pivot
        self.dust_cover = cover
        for sx in (-1, 1):
            box("hinge", (0.03, 0.02, 0.02), (TT.x + sx * (w / 2 - 0.07), hinge.y + 0.006, hinge.z), c, black, bevel=0.002)

    def build_arm(self):
        """The moving tonearm, built in its rest pose under one empty at the pivot; yaw turns the
        empty about -z."""
        c = self.coll["arm"]
        root = bpy.data.objects.new("arm_root", None)
        c.objects.link(root)
        root.location = PIVOT
        self.arm_root = root
        chrome = self.materials["chrome"]
        black = principled("arm_black", (0.015, 0.015, 0.015), roughness=0.3)
        z = 0.016  # arm tube height above the record plane at the pivot
        stylus = self.arm_stylus_rest()
        tip = Vector((stylus.x - PIVOT.x, stylus.y - PIVOT.y, 0))
        d = tip.normalized()
        # Gimbal, tube, headshell with cartridge, counterweight; all children of the root.
        parts = []
        parts.append(cylinder("gimbal", 0.012, 0.006, 0.026, (0, 0), c, chrome, vertices=32))
        a = Vector((0, 0, z))
        b = Vector((tip.x, tip.y, 0)) - d * 0.045 + Vector((0, 0, z))
        parts.append(tube("arm_tube", a - d * 0.02, b, 0.0042, c, chrome))
        # Headshell: turned by the usual offset angle towards the record.
        off = Matrix.Rotation(math.radians(22), 3, 'Z') @ d
        hs_c = Vector((tip.x, tip.y, 0)) - off * 0.018 + Vector((0, 0, z - 0.002))
        parts.append(tube("headshell_neck", b, hs_c - off * 0.014, 0.0045, c, chrome))
        hs = box("headshell", (0.018, 0.040, 0.004), hs_c, c, black, bevel=0.001)
        hs.rotation_euler = (0, 0, math.atan2(off.y, off.x) - math.pi / 2)
        parts.append(hs)
        cart = box("cartridge", (0.014, 0.022, 0.011), hs_c + off * 0.004 - Vector((0, 0, 0.0075)), c,
                   principled("cartridge", (0.55, 0.05, 0.04), roughness=0.35), bevel=0.001)
        cart.rotation_euler = hs.rotation_euler
        parts.append(cart)
        fl = box("finger_lift", (0.002, 0.016, 0.002), hs_c - Matrix.Rotation(math.radians(90), 3, 'Z') @ off * 0.014
                 + Vector((0, 0, 0.001)), c, chrome)
        fl.rotation_euler = hs.rotation_euler
        parts.append(fl)
        back = -d
        parts.append(tube("arm_stub", Vector((0, 0, z)), Vector((0, 0, z)) + back * 0.06, 0.0048, c, chrome))
        cw = cylinder("counterweight", 0.017, 0, 0.034, (0, 0), c, black, vertices=48, bevel=0.002)
        cw.location = Vector((0, 0, z)) + back * 0.062
        cw.rotation_euler = back.to_track_quat('Z', 'Y').to_euler()
        parts.append(cw)
        ring = cylinder("cw_ring", 0.0175, 0, 0.006, (0, 0), c, chrome, vertices=48)
        ring.location = Vector((0, 0, z)) + back * 0.044
        ring.rotation_euler = cw.rotation_euler
        parts.append(ring)
        for p in parts:
            p.parent = root
        self.arm_parts = parts
        for p in parts:
            for m in p.data.materials:
                if m.name not in self.materials:
                    self.materials[m.name] = m

    def arm_stylus_rest(self):
        """The stylus at yaw 0: in front of the pivot, next to the arm rest, off the record."""
        return PIVOT + Vector((0.012, -ARM_LENGTH, 0))

    def stylus_at(self, yaw_deg):
        rest = self.arm_stylus_rest() - PIVOT
        return PIVOT + Matrix.Rotation(math.radians(-yaw_deg), 3, 'Z') @ rest

    def yaw_for_radius(self, radius):
        """Yaw (degrees) at which the stylus lies `radius` from the spindle (bisection; the stylus
        comes nearer the spindle as the yaw grows over the range used)."""
        lo, hi = 0.0, 60.0
        for _ in range(60):
            mid = (lo + hi) / 2
            r = (self.stylus_at(mid) - RECORD_CENTRE).xy.length
            if r > radius:
                lo = mid
            else:
                hi = mid
        return (lo + hi) / 2

    def set_arm_yaw(self, yaw_deg):
        self.arm_root.rotation_euler = (0, 0, math.radians(-yaw_deg))

    def build_props(self):
        c = self.coll["props"]
        # Standing sleeve leaning on the wall, right of the turntable; its front shows the cover art.
        sleeve = principled("sleeve", (0.8, 0.8, 0.8), roughness=0.55, aovs={"cover": 1.0})
        self.materials["sleeve"] = sleeve
        card = principled("card", (0.75, 0.72, 0.66), roughness=0.7)
        s = 0.315
        tilt = math.radians(11)
        base = Vector((0.45, WALL_Y - 0.012 - s * math.sin(tilt), DESK_Z))
        sl = box("sleeve_back", (s, 0.003, s), (0, 0, 0), c, card)
        # The printed face a millimetre clear of the card and a millimetre inside its edges: flush with
        # them, the two surfaces fought along the top edge and drew a thin shadow line across it.
        front = mesh_object("sleeve", lambda: bpy.ops.mesh.primitive_plane_add(size=1), c, sleeve, (0, -0.0025, 0),
                            (math.pi / 2, 0, 0))
        front.scale = (s - 0.002, s - 0.002, 1)
        hold = bpy.data.objects.new("sleeve_pose", None)
        c.objects.link(hold)
        hold.location = base
        hold.rotation_euler = (-tilt, 0, math.radians(-3))
        for o in (sl, front):
            o.parent = hold
            o.location.z += s / 2
        self.sleeve = front
        self.sleeve_pose = hold
        self.sleeve_size = s
        # The stack of sleeves on the desk, left; the top one shows the previous album.
        self.stack_top = None
        sx, sy = -0.47, -0.03
        arts = [(0.55, 0.12, 0.08), (0.1, 0.22, 0.35), (0.85, 0.7, 0.2), (0.15, 0.15, 0.15), (0.6, 0.55, 0.48), (0.2, 0.4, 0.25)]
        z = DESK_Z
        for i, col in enumerate(arts + [None]):
            th = 0.0032
            rot = math.radians(self.rng.uniform(-7, 7))
            dx, dy = self.rng.uniform(-0.008, 0.008), self.rng.uniform(-0.008, 0.008)
            if col is None:
                # White in the plates; its AOV maps the plate to the art of the previous album.
                m = material("stack_top")
                g = Nodes(m)
                uv = g.n("ShaderNodeUVMap")
                sep = g.n("ShaderNodeSeparateXYZ", Vector=uv)
                top = g.math('GREATER_THAN', g.n("ShaderNodeSeparateXYZ", Vector=g.n("ShaderNodeNewGeometry").outputs["Normal"]).outputs["Z"], 0.9)
                g.aov("stackuv", g.n("ShaderNodeCombineXYZ", X=g.math('MULTIPLY', sep.outputs["X"], top),
                                     Y=g.math('MULTIPLY', g.math('SUBTRACT', 1.0, sep.outputs["Y"]), top), Z=top).outputs[0])
                g.output(g.n("ShaderNodeBsdfPrincipled", **{"Base Color": (0.8, 0.8, 0.8, 1)}, Roughness=0.55))
                self.materials["stack_top"] = m
            else:
                m = principled("stack_%d" % i, col, roughness=0.6)
            o = box("stack_%d" % i, (s, s, th), (sx + dx, sy + dy, z + th / 2), c, m)
            o.rotation_euler = (0, 0, rot)
            z += th
            if col is None:
                self.stack_top = o
                self.flat_uv(o)
        # Cup of coffee, front right.
        cup_xy = Vector((0.30, -0.10))
        ceramic = principled("ceramic", (0.86, 0.84, 0.80), roughness=0.12, specular=0.6, clearcoat=0.5)
        outer = cylinder("cup", 0.042, DESK_Z, DESK_Z + 0.095, cup_xy, c, ceramic, vertices=64, bevel=0.002)
        sol = outer.modifiers.new("solid", 'SOLIDIFY')
        sol.thickness = 0.004
        # Open the top: delete the top face.
        me = outer.data
        top = [p.index for p in me.polygons if p.normal.z > 0.9]
        bpy.context.view_layer.objects.active = outer
        bpy.ops.object.mode_set(mode='EDIT')
        bpy.ops.mesh.select_all(action='DESELECT')
        bpy.ops.object.mode_set(mode='OBJECT')
        for i in top:
            me.polygons[i].select = True
        bpy.ops.object.mode_set(mode='EDIT')
        bpy.ops.mesh.delete(type='FACE')
        bpy.ops.object.mode_set(mode='OBJECT')
        coffee = principled("coffee", (0.03, 0.012, 0.005), roughness=0.05, specular=0.6)
        cylinder("coffee", 0.038, DESK_Z + 0.01, DESK_Z + 0.082, cup_xy, c, coffee)
        handle = mesh_object("cup_handle", lambda: bpy.ops.mesh.primitive_torus_add(major_radius=0.024, minor_radius=0.006),
                             c, ceramic, (cup_xy.x + 0.048, cup_xy.y, DESK_Z + 0.052), (math.pi / 2, 0, 0), smooth=True)
        self.cup_top = Vector((cup_xy.x, cup_xy.y, DESK_Z + 0.09))
        # Speakers either side, on the desk.
        veneer = wood_material("speaker_wood", (0.35, 0.2, 0.1), (0.14, 0.07, 0.03), scale=4.0, stretch=10.0, roughness=0.35)
        grille = self.fabric((0.05, 0.05, 0.055))
        cone = principled("cone", (0.04, 0.04, 0.04), roughness=0.6)
        for name, x in (("speaker_l", -0.92), ("speaker_r", 0.80)):
            box(name, (0.21, 0.24, 0.34), (x, WALL_Y - 0.16, DESK_Z + 0.17), c, veneer, bevel=0.004)
            box(name + "_front", (0.19, 0.004, 0.32), (x, WALL_Y - 0.281, DESK_Z + 0.17), c, grille, bevel=0.002)
            cylinder(name + "_badge", 0.006, 0, 0.002, (0, 0), c, self.materials["chrome"]).location = (x, WALL_Y - 0.284, DESK_Z + 0.03)
        # Desk lamp, far right: weighted base, arm, shade; the bulb and its light are the "lamp" group.
        lamp_metal = principled("lamp_metal", (0.08, 0.16, 0.12), roughness=0.3, metallic=0.6, clearcoat=0.6)
        base_xy = Vector((0.70, -0.05))
        cylinder("lamp_base", 0.075, DESK_Z, DESK_Z + 0.018, base_xy, c, lamp_metal, bevel=0.004)
        j1 = Vector((base_xy.x, base_xy.y, DESK_Z + 0.018))
        j2 = j1 + Vector((0.02, 0.10, 0.36))
        head = j2 + Vector((-0.20, -0.06, 0.02))
        tube("lamp_arm1", j1, j2, 0.007, c, self.materials["chrome"])
        tube("lamp_arm2", j2, head, 0.007, c, self.materials["chrome"])
        shade = mesh_object("lamp_shade", lambda: bpy.ops.mesh.primitive_cone_add(vertices=64, radius1=0.085, radius2=0.03, depth=0.13, end_fill_type='NOTHING'),
                            c, lamp_metal, head - Vector((0, 0, 0.05)), smooth=True)
        shade.modifiers.new("solid", 'SOLIDIFY').thickness = 0.002
        inner = principled("shade_inside", (0.9, 0.88, 0.82), roughness=0.5)
        shade.data.materials.append(inner)
        shade.modifiers["solid"].material_offset = 1
        bulb = principled("bulb", (1, 1, 1), roughness=0.2, emission_strength=0.0)
        self.lamp_head = head - Vector((0, 0, 0.075))
        b = mesh_object("lamp_bulb", lambda: bpy.ops.mesh.primitive_uv_sphere_add(radius=0.022), c, None,
                        self.lamp_head, smooth=True)
        em = material("bulb_glow")
        g = Nodes(em)
        g.output(g.n("ShaderNodeEmission", Color=(*LAMP_COLOUR, 1), Strength=25.0))
        b.data.materials.append(em)
        b.lightgroup = "lamp"
        b.visible_shadow = False
        self.bulb = b
        # Plant in a pot at the far left.
        pot_m = principled("pot", (0.55, 0.28, 0.16), roughness=0.7)
        cylinder("pot", 0.075, DESK_Z, DESK_Z + 0.14, (-1.22, 0.30), c, pot_m, bevel=0.004)
        soil = principled("soil", (0.05, 0.035, 0.025), roughness=0.95)
        cylinder("soil", 0.07, DESK_Z + 0.1, DESK_Z + 0.13, (-1.22, 0.30), c, soil)
        leaf_m = material("leaf")
        g = Nodes(leaf_m)
        vein = g.n("ShaderNodeTexWave", Scale=2.0, _wave_type='BANDS', _bands_direction='Y')
        col = g.n("ShaderNodeMixRGB", Fac=g.math('MULTIPLY', vein.outputs["Fac"], 0.3), Color1=(0.04, 0.16, 0.05, 1), Color2=(0.1, 0.28, 0.08, 1))
        bsdf = g.n("ShaderNodeBsdfPrincipled", Roughness=0.4, Specular=0.4)
        g.set(bsdf.inputs["Base Color"], col)
        tr = g.n("ShaderNodeBsdfTranslucent", Color=(0.1, 0.3, 0.05, 1))
        g.output(g.n("ShaderNodeMixShader", Fac=0.25, i1=bsdf, i2=tr))
        stem_m = principled("stem", (0.12, 0.2, 0.06), roughness=0.6)
        for i in range(14):
            ang = self.rng.uniform(0, 2 * math.pi)
            height = self.rng.uniform(0.12, 0.42)
            reach = self.rng.uniform(0.05, 0.16)
            top = Vector((-1.22 + reach * math.cos(ang), 0.30 + reach * math.sin(ang) * 0.7, DESK_Z + 0.12 + height))
            tube("stem", (-1.22, 0.30, DESK_Z + 0.12), top, 0.003, c, stem_m, vertices=8)
            leaf = mesh_object("leaf", lambda: bpy.ops.mesh.primitive_uv_sphere_add(radius=1, segments=16, ring_count=8), c, leaf_m, top, smooth=True)
            leaf.scale = (0.075, 0.035, 0.006)
            leaf.rotation_euler = (self.rng.uniform(-0.5, 0.5), self.rng.uniform(-0.6, 0.6), ang)

    def flat_uv(self, obj):
        """UVs of a flat box's top face: u along local +x, v along local +y (0…1)."""
        me = obj.data
        if not me.uv_layers:
            me.uv_layers.new()
        uv = me.uv_layers.active.data
        xs = [v.co.x for v in me.vertices]
        ys = [v.co.y for v in me.vertices]
        x0, x1, y0, y1 = min(xs), max(xs), min(ys), max(ys)
        for poly in me.polygons:
            for li in poly.loop_indices:
                co = me.vertices[me.loops[li].vertex_index].co
                uv[li].uv = ((co.x - x0) / (x1 - x0), (co.y - y0) / (y1 - y0))

    def build_outside(self):
        """The city across the street, seen only through the window: three rows of buildings at growing
        distance (the street's, a block behind, the skyline), the street with its lamps, and a sky dome.
        All of it is emission in the "view" group, visible to the camera alone, so the room's light
        stays the sky's and the sun's and the view can be exposed on its own."""
        c = self.coll["outside"]
        rng = random.Random(11)
        bm = building_material("building")
        self.view_materials = [bm]
        self.view_objects = []

        def view_only(o):
            o.lightgroup = "view"
            o.visible_diffuse = False
            o.visible_glossy = False
            o.visible_transmission = False
            o.visible_volume_scatter = False
            o.visible_shadow = False
            self.view_objects.append(o)
            return o

        palette = [(0.46, 0.41, 0.36), (0.34, 0.29, 0.26), (0.55, 0.52, 0.48), (0.28, 0.27, 0.26), (0.44, 0.33, 0.26),
                   (0.5, 0.46, 0.4), (0.24, 0.26, 0.3), (0.7, 0.66, 0.6), (0.2, 0.14, 0.12)]
        # (first x, last x, front y range, depth, height range, gap range)
        # Low across the street, so the block behind and the skyline show above it.
        rows = [(-70.0, 50.0, (28.0, 34.0), 14.0, (5.0, 13.0), (0.0, 8.0)),
                (-260.0, 200.0, (110.0, 180.0), 30.0, (14.0, 42.0), (4.0, 30.0)),
                (-1100.0, 800.0, (420.0, 820.0), 60.0, (40.0, 170.0), (5.0, 40.0))]
        for x, x_end, (y0, y1), depth, (h0, h1), (g0, g1) in rows:
            scale = depth / 14.0
            while x < x_end:
                w = rng.uniform(10, 22) * scale
                h = rng.uniform(h0, h1)
                y = rng.uniform(y0, y1)
                o = box("building", (w, depth, h), (x + w / 2, y + depth / 2, STREET_Z + h / 2), c, bm)
                o.color = (*rng.choice(palette), 1.0)
                view_only(o)
                x += w + rng.uniform(g0, g1)
        street = street_material("street")
        self.view_materials.append(street)
        view_only(box("street", (3000, 3000, 0.1), (0, 1500, STREET_Z - 0.05), c, street))
        heads = lamp_head_material("street_lamp")
        self.view_materials.append(heads)
        post = principled("street_post", (0.05, 0.05, 0.05), roughness=0.5)
        # Both kerbs, the near row half a step along: its heads stand a little below the window's sill.
        for kerb, start, post_dy in ((STREET_LAMP_Y, -80.0, 0.4), (NEAR_LAMP_Y, -80.0 + STREET_LAMP_STEP / 2, -0.4)):
            x = start
            while x < 60:
                view_only(mesh_object("street_lamp", lambda: bpy.ops.mesh.primitive_uv_sphere_add(radius=0.35, segments=12, ring_count=6),
                                      c, heads, (x, kerb, STREET_Z + 6.0)))
                view_only(cylinder("street_post", 0.08, STREET_Z, STREET_Z + 5.8, (x, kerb + post_dy), c, post, vertices=8))
                x += STREET_LAMP_STEP
        sky = sky_material("view_sky")
        self.view_materials.append(sky)
        dome = mesh_object("view_sky", lambda: bpy.ops.mesh.primitive_uv_sphere_add(radius=3000, segments=48, ring_count=24),
                           c, sky, (0, 0, 0), smooth=True)
        view_only(dome)

    def build_lights(self):
        c = self.coll["lights"]
        sun = bpy.data.lights.new("sun", 'SUN')
        sun.angle = math.radians(1.2)
        self.lights["sun"] = _link(bpy.data.objects.new("sun", sun), c)
        self.lights["sun"].lightgroup = "sun"
        lamp = bpy.data.lights.new("lamp", 'SPOT')
        lamp.energy = 14.0
        lamp.color = LAMP_COLOUR
        lamp.spot_size = math.radians(115)
        lamp.spot_blend = 0.6
        lamp.shadow_soft_size = 0.02
        o = _link(bpy.data.objects.new("lamp", lamp), c)
        o.location = self.lamp_head
        o.rotation_euler = (math.radians(12), 0, 0)
        o.lightgroup = "lamp"
        self.lights["lamp"] = o
        room = bpy.data.lights.new("room", 'AREA')
        room.shape = 'DISK'
        room.size = 0.45
        room.energy = 55.0
        room.color = (1.0, 0.86, 0.7)
        o = _link(bpy.data.objects.new("room", room), c)
        o.location = (0.0, -1.2, 2.68)
        o.lightgroup = "room"
        self.lights["room"] = o
        # A portal in the window opening: the sky is sampled where it can enter the room.
        x0, x1, z0, z1 = WINDOW
        portal = bpy.data.lights.new("window_portal", 'AREA')
        portal.shape = 'RECTANGLE'
        portal.size, portal.size_y = x1 - x0, z1 - z0
        portal.cycles.is_portal = True
        o = _link(bpy.data.objects.new("window_portal", portal), c)
        o.location = ((x0 + x1) / 2, WALL_Y + 0.02, (z0 + z1) / 2)
        o.rotation_euler = (-math.pi / 2, 0, 0)
        world = bpy.data.worlds.new("sky")
        world.use_nodes = True
        self.scene.world = world
        world.lightgroup = "sky"
        nt = world.node_tree
        nt.nodes.clear()
        self.sky = nt.nodes.new("ShaderNodeTexSky")
        self.sky.sky_type = 'NISHITA'
        self.sky.sun_disc = False
        self.sky.altitude = 40.0
        self.sky.air_density = 1.0
        self.sky.dust_density = 2.0
        self.world_bg = nt.nodes.new("ShaderNodeBackground")
        out = nt.nodes.new("ShaderNodeOutputWorld")
        nt.links.new(self.sky.outputs[0], self.world_bg.inputs[0])
        nt.links.new(self.world_bg.outputs[0], out.inputs[0])

    def sun_direction(self, time):
        """Unit vector from the scene towards the sun at this time of day."""
        t = TIMES[time]
        el, az = math.radians(t["elevation"]), math.radians(t["azimuth"])
        return Vector((math.cos(el) * math.cos(az), math.cos(el) * math.sin(az), math.sin(el)))

    def set_time(self, time, weights=None):
        """Sets sun, sky and city lights for a time of day. `weights` (group -> RGB factor) scales each
        group as a preset mixes it; without it every group is on at full strength and the lamp and the
        room light are on only at night (their plates come from the night render)."""
        t = TIMES[time]
        d = self.sun_direction(time)
        w = weights or {}

        def factor(group, default):
            v = w.get(group, default) if weights is not None else default
            return v if isinstance(v, (list, tuple)) else (v, v, v)

        sun = self.lights["sun"]
        sun.rotation_euler = d.to_track_quat('Z', 'Y').to_euler()
        f = factor("sun", 1.0)
        sun.data.energy = t["sun"] * max(f)
        sun.data.color = tuple(t["sun_colour"][i] * (f[i] / max(max(f), 1e-9)) for i in range(3))
        sun.hide_render = t["sun"] <= 0 or max(f) <= 0
        self.sky.sun_elevation = math.radians(t["elevation"])
        # Nishita's rotation 0 puts the sun towards -y, growing towards +x.
        self.sky.sun_rotation = math.atan2(d.x, -d.y)
        f = factor("sky", 1.0)
        self.world_bg.inputs[1].default_value = t["sky"] * max(f)
        night_lights = weights is None and time == "noite"
        for name in ("lamp", "room"):
            f = factor(name, 1.0 if night_lights else 0.0)
            o = self.lights[name]
            o.hide_render = max(f) <= 0
            o.data["base_energy"] = o.data.get("base_energy", o.data.energy)
            o.data.energy = o.data["base_energy"] * max(f)
        f = factor("lamp", 1.0 if night_lights else 0.0)
        self.bulb.hide_render = max(f) <= 0
        glow = self.bulb.data.materials[0].node_tree.nodes["Emission"]
        glow.inputs["Strength"].default_value = 25.0 * max(f)
        self._outside(time)

    def _outside(self, time):
        """Retunes the view's materials to a time of day."""
        o = dict(OUTSIDE[time])
        o["sun_dir"] = tuple(self.sun_direction(time)) if TIMES[time]["sun_key"] else (0.0, 0.0, -1.0)
        for m in self.view_materials:
            for node in m.node_tree.nodes:
                key = node.name.split(".")[0]
                if key not in o:
                    continue
                v = o[key]
                if node.type == 'COMBXYZ':
                    for i in range(3):
                        node.inputs[i].default_value = v[i]
                else:
                    node.outputs[0].default_value = (*v, 1.0) if node.type == 'RGB' else v

    def build_cameras(self):
        c = self.coll["cameras"]
        setups = {
            "wide": ((-0.30, -1.70, 1.36), (-0.25, 0.40, 1.02), 24.0),
            "mid": ((0.08, -1.02, 1.24), (-0.02, 0.32, 0.86), 32.0),
            # Near the desk: the record, the arm and the sleeve, the lid and a corner of the window behind.
            "close": ((0.17, -0.40, 1.07), (0.14, 0.30, 0.90), 26.0),
            # From above, looking down on the turntable and the sleeve, the window's lower part behind:
            # through it, the street below.
            "top": ((0.05, -0.42, 1.62), (0.0, 0.28, 0.88), 24.0),
        }
        for name, (eye, target, lens) in setups.items():
            cam = bpy.data.cameras.new(name)
            cam.lens = lens
            cam.sensor_width = 36.0
            cam.sensor_fit = 'HORIZONTAL'
            cam.clip_start = 0.05
            cam.clip_end = 8000.0
            o = _link(bpy.data.objects.new(name, cam), c)
            o.location = eye
            o.rotation_euler = (Vector(target) - Vector(eye)).to_track_quat('-Z', 'Y').to_euler()
            self.cameras[name] = o


    def build_front(self):
        """A leaf of a plant beside the close camera, out of focus across the frame's lower left corner:
        the close framing's front layer. A dark silhouette (seen against the light, it is the same
        leaf at every hour), rendered alone; hidden from everything else."""
        c = self.coll["front"]
        c.hide_render = True
        m = material("front_leaf")
        g = Nodes(m)
        vein = g.n("ShaderNodeTexWave", Scale=3.0, _wave_type='BANDS', _bands_direction='Y')
        col = g.n("ShaderNodeMixRGB", Fac=g.math('MULTIPLY', vein.outputs["Fac"], 0.5), Color1=(0.004, 0.009, 0.003, 1),
                  Color2=(0.012, 0.024, 0.008, 1))
        g.output(g.n("ShaderNodeEmission", Color=col, Strength=1.0))
        eye = self.cameras["close"].location
        self.front_leaves = []
        for off, size, rot in (((-0.09, 0.16, -0.12), (0.045, 0.018, 0.003), (1.3, 0.5, 0.9)),
                               ((-0.13, 0.20, -0.11), (0.04, 0.016, 0.003), (1.2, -0.4, 0.3))):
            leaf = mesh_object("front_leaf", lambda: bpy.ops.mesh.primitive_uv_sphere_add(radius=1, segments=24, ring_count=12),
                               c, m, eye + Vector(off), rot, smooth=True)
            leaf.scale = size
            self.front_leaves.append(leaf)
        tube("front_stem", eye + Vector((-0.16, 0.17, -0.2)), eye + Vector((-0.11, 0.18, -0.12)), 0.002, c, m, vertices=8)
        self.front_focus = Vector((RECORD_CENTRE.x, RECORD_CENTRE.y, RECORD_TOP))
        self.front_framings = ("close",)


def main():
    argv = sys.argv[sys.argv.index("--") + 1:] if "--" in sys.argv else []
    room = Room()
    if "--save" in argv:
        bpy.ops.wm.save_as_mainfile(filepath=argv[argv.index("--save") + 1])


if __name__ == "__main__":
    main()
