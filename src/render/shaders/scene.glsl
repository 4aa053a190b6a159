#version 450
// The whole shader library of the room, one source text. The build compiles it once per entry
// point with one of FULLSCREEN, COMPOSITE, COMPOSITE_STILL, COMPOSITE_TONE, COMPOSITE_MOVING,
// STEAM, STEAM_UP, ACCUMULATE, ACCUMULATE_ALPHA, CONVERT_PLATE defined.
//
// Binding table of the composite and steam passes (descriptor set 0):
//   0        read-only storage block (SceneUniforms / SteamUniforms), dynamic offset. Not a
//            uniform block: Mesa's software driver compiles a new shader with the block's
//            values folded in at every bind and never frees it (megabytes per frame).
//   1, 2, 3  samplers lin, art, sprite
//   4 + s    texture slot s (0…35) of SceneTextures
// The pre-mix passes bind their source at 0 and take four floats as push constants.

#ifdef FULLSCREEN
void main() {
    vec2 p = vec2((gl_VertexIndex << 1) & 2, gl_VertexIndex & 2);
    gl_Position = vec4(p * 2.0 - 1.0, 0.0, 1.0);
}
#endif

#if defined(ACCUMULATE) || defined(ACCUMULATE_ALPHA) || defined(CONVERT_PLATE)
layout(set = 0, binding = 0) uniform sampler2D src;
layout(push_constant) uniform Band { vec4 wy; } band;
layout(location = 0) out vec4 outColor;

void main() {
    ivec2 pos = ivec2(gl_FragCoord.xy);
#ifdef CONVERT_PLATE
    outColor = texelFetch(src, pos, 0);
#else
    ivec2 q = pos - ivec2(0, int(band.wy.w));
    vec3 v = texelFetch(src, q, 0).rgb * band.wy.rgb;
#ifdef ACCUMULATE_ALPHA
    outColor = vec4(0.0, 0.0, 0.0, dot(v, vec3(0.2126, 0.7152, 0.0722)));
#else
    outColor = vec4(v, 0.0);
#endif
#endif
}
#endif

#if defined(COMPOSITE_STILL) || defined(COMPOSITE_TONE) || defined(COMPOSITE_MOVING) || defined(STEAM_UP)
#define COMPOSITE
#endif

#if defined(COMPOSITE) || defined(STEAM)
layout(set = 0, binding = 1) uniform sampler lin;
layout(set = 0, binding = 2) uniform sampler art;
layout(set = 0, binding = 3) uniform sampler sprite;

layout(set = 0, binding = 4) uniform texture2D mix0;
layout(set = 0, binding = 5) uniform texture2D mix1;
layout(set = 0, binding = 6) uniform texture2D mix2;
layout(set = 0, binding = 7) uniform texture2D mix3;

layout(location = 0) out vec4 outColor;

// Fixed per pipeline, from the frame's counts: what a frame does not use is compiled out rather
// than skipped at run time (a software device runs both sides of every branch).
layout(constant_id = 0) const uint MIXES = 4u;
layout(constant_id = 1) const uint ARMS = 4u;
layout(constant_id = 2) const uint FRONTS = 2u;
layout(constant_id = 3) const bool RAIN = true;
// The moving parts a moving layer's region is shaded with (bits: drops 1, specks 2, label 4,
// strobe 8, arm 16, front 32, the arm's shadow 64 and reflection 128); parts outside a region
// cannot reach it.
layout(constant_id = 4) const uint PARTS = 255u;
// Steam in the first seconds of its period, blended with the end of the one before.
layout(constant_id = 5) const bool WRAP = true;

const vec3 lumaWeights = vec3(0.2126, 0.7152, 0.0722);
const float PI = 3.14159265358979;

float luminance(vec3 c) { return dot(c, lumaWeights); }

vec2 project(mat3 m, vec2 p) {
    vec3 h = m * vec3(p, 1.0);
    return h.xy / h.z;
}

float hash(vec2 p) { return fract(sin(dot(p, vec2(12.9898, 78.233))) * 43758.5453); }

vec3 mixTap(int i, vec2 uv) {
    if (i == 0) return texture(sampler2D(mix0, lin), uv).rgb;
    if (i == 1) return texture(sampler2D(mix1, lin), uv).rgb;
    if (i == 2) return texture(sampler2D(mix2, lin), uv).rgb;
    return texture(sampler2D(mix3, lin), uv).rgb;
}
#endif

#ifdef COMPOSITE
layout(set = 0, binding = 0, std430) readonly buffer Uniforms {
    mat3 screenToPlate;
    mat3 coverInv;
    mat3 labelInv;
    mat3 armInv[2];
    vec4 plateSize;
    vec4 origin;
    vec4 cover;
    vec4 label;
    vec4 look;
    vec4 tone;
    vec4 mixWeights;
    vec4 coverMaskRect;
    vec4 labelMaskRect;
    vec4 armRects[4];
    vec4 shadowRects[4];
    vec4 armWeights;
    vec4 frontRects[2];
    vec4 frontWeights;
    vec4 reflRects[4];
    mat3 recordInv;
    vec4 recordGeo;
    vec4 recordLight;
    vec4 recordColor;
    vec4 recordRect;
    vec4 recordMaskRect;
    vec4 recordMisc;
    vec4 bands[8];
    vec4 bounceRect;
    vec4 bounceWeights;
    vec4 artMean;
    vec4 stackRect;
    vec4 led33;
    vec4 led33Color;
    vec4 led45;
    vec4 led45Color;
    vec4 strobe;
    vec4 strobeColor;
    vec4 strobeRect;
    vec4 rain;
    vec4 glassRect;
    vec4 showcase;
    vec4 probes[3];
    vec4 dustRect;
    vec4 dust;
    vec4 stillOrigin;
    uint mixCount;
    uint armCount;
    uint frontCount;
    uint bandCount;
} U;

// How project(m, ·) of the plate point under a screen pixel changes from that pixel to the next.
// Textures sampled with it, not with implicit gradients: those are undefined in branches that
// differ from pixel to pixel, and the software device gets them wrong (dotted lines of the wrong
// mip level across the art).
mat2 screenGrad(mat3 m, vec2 screen) {
    vec2 q0 = project(m, project(U.screenToPlate, screen));
    return mat2(project(m, project(U.screenToPlate, screen + vec2(1.0, 0.0))) - q0,
                project(m, project(U.screenToPlate, screen + vec2(0.0, 1.0))) - q0);
}

layout(set = 0, binding = 8) uniform texture2D coverMask;
layout(set = 0, binding = 9) uniform texture2D labelMask;
layout(set = 0, binding = 10) uniform texture2D artNew;
layout(set = 0, binding = 11) uniform texture2D artOld;
layout(set = 0, binding = 12) uniform texture2D arm0;
layout(set = 0, binding = 13) uniform texture2D arm1;
layout(set = 0, binding = 14) uniform texture2D arm2;
layout(set = 0, binding = 15) uniform texture2D arm3;
layout(set = 0, binding = 16) uniform texture2D shadow0;
layout(set = 0, binding = 17) uniform texture2D shadow1;
layout(set = 0, binding = 18) uniform texture2D shadow2;
layout(set = 0, binding = 19) uniform texture2D shadow3;
layout(set = 0, binding = 20) uniform texture2D front0;
layout(set = 0, binding = 21) uniform texture2D front1;
layout(set = 0, binding = 22) uniform texture2D refl0;
layout(set = 0, binding = 23) uniform texture2D refl1;
layout(set = 0, binding = 24) uniform texture2D refl2;
layout(set = 0, binding = 25) uniform texture2D refl3;
layout(set = 0, binding = 26) uniform texture2D bounce0;
layout(set = 0, binding = 27) uniform texture2D bounce1;
layout(set = 0, binding = 28) uniform texture2D stackUV;
layout(set = 0, binding = 29) uniform texture2D stackArt;
layout(set = 0, binding = 30) uniform texture2D strobeTex;
layout(set = 0, binding = 31) uniform texture2D glassMask;
layout(set = 0, binding = 32) uniform texture2D rec0;
layout(set = 0, binding = 33) uniform texture2D rec1;
layout(set = 0, binding = 34) uniform texture2D recordMask;
layout(set = 0, binding = 35) uniform texture2D labelNew;
layout(set = 0, binding = 36) uniform texture2D labelOld;
layout(set = 0, binding = 37) uniform texture2D dustMask;
layout(set = 0, binding = 38) uniform texture2D stillTex;
layout(set = 0, binding = 39) uniform texture2D steamTex;

vec4 spriteIn(texture2D t, vec4 rect, vec2 p) {
    return texture(sampler2D(t, sprite), (p - rect.xy) / rect.zw);
}

vec3 lightAt(vec2 uv) {
    vec3 sum = vec3(0.0);
    for (uint i = 0u; i < MIXES; ++i) sum += mixTap(int(i), uv) * U.mixWeights[i];
    return sum;
}

vec4 armTap(int j, vec2 uv) {
    if (j == 0) return texture(sampler2D(arm0, sprite), uv);
    if (j == 1) return texture(sampler2D(arm1, sprite), uv);
    if (j == 2) return texture(sampler2D(arm2, sprite), uv);
    return texture(sampler2D(arm3, sprite), uv);
}

float shadowTap(int j, vec2 uv) {
    if (j == 0) return texture(sampler2D(shadow0, lin), uv).r;
    if (j == 1) return texture(sampler2D(shadow1, lin), uv).r;
    if (j == 2) return texture(sampler2D(shadow2, lin), uv).r;
    return texture(sampler2D(shadow3, lin), uv).r;
}

vec3 reflTap(int j, vec2 uv) {
    if (j == 0) return texture(sampler2D(refl0, sprite), uv).rgb;
    if (j == 1) return texture(sampler2D(refl1, sprite), uv).rgb;
    if (j == 2) return texture(sampler2D(refl2, sprite), uv).rgb;
    return texture(sampler2D(refl3, sprite), uv).rgb;
}

// Shop-window light: art under too little light is lifted by one gain.
float showcaseGain(vec3 avg, float artLum, float darkCap) {
    if (U.showcase.x <= 0.0) return 1.0;
    float l = max(luminance(avg), 1e-4);
    float light = clamp(U.showcase.x / l, 1.0, U.showcase.y);
    float dark = clamp(U.showcase.z / (l * max(artLum, 0.005)), 1.0, max(darkCap, U.showcase.y));
    return max(light, dark);
}

vec3 agx(vec3 v, float contrast, float offset, float gamma) {
    const mat3 inset = mat3(
        vec3(0.842479062253094, 0.0423282422610123, 0.0423756549057051),
        vec3(0.0784335999999992, 0.878468636469772, 0.0784336),
        vec3(0.0792237451477643, 0.0791661274605434, 0.879142973793104));
    const mat3 outset = mat3(
        vec3(1.19687900512017, -0.0528968517574562, -0.0529716355144438),
        vec3(-0.0980208811401368, 1.15190312990417, -0.0980434501171241),
        vec3(-0.0990297440797205, -0.0989611768448433, 1.15107367264116));
    const float minEv = -12.47393;
    const float maxEv = 4.026069;
    v = inset * max(v, vec3(1e-10));
    v = (clamp(log2(v), vec3(minEv), vec3(maxEv)) - minEv) / (maxEv - minEv);
    float pivot = (log2(0.18) - minEv) / (maxEv - minEv);
    v = clamp((v - pivot) * contrast + pivot + offset, 0.0, 1.0);
    vec3 v2 = v * v;
    vec3 v4 = v2 * v2;
    v = 15.5 * v4 * v2 - 40.14 * v4 * v + 31.96 * v4 - 6.868 * v2 * v + 0.4298 * v2 + 0.1191 * v - 0.00232;
    return pow(clamp(outset * v, 0.0, 1.0), vec3(gamma));
}

// A plate rectangle holding p, grown by a plate pixel for the linear filter's reach.
bool near(vec4 rect, vec2 p) {
    return rect.z > 0.0 && all(greaterThan(p, rect.xy - 1.0)) && all(lessThan(p, rect.xy + rect.zw + 1.0));
}

vec3 rainyDay(vec3 c) {
    if (U.rain.z <= 0.0) return c;
    float m = luminance(c);
    return mix(c, mix(c, vec3(m), 0.15) * vec3(0.92, 0.97, 1.06), U.rain.z);
}

// The record's diffuse light at p: its own passes where the scene has them, else the room's.
float recordDiffuse(vec2 p) {
    if (U.recordRect.z > 0.0) {
        vec2 ru = (p - U.recordRect.xy) / U.recordRect.zw;
        return texture(sampler2D(rec0, sprite), ru).a * U.recordMisc.z + texture(sampler2D(rec1, sprite), ru).a * U.recordMisc.w;
    }
    return luminance(lightAt(U.recordMisc.xy));
}

// How the stack's art coordinates change from the screen pixel at `screen` to the next along `d`,
// read on a side that still shows the cover (see screenGrad).
vec2 stackStep(vec2 screen, vec2 st, vec2 d) {
    vec3 ahead = spriteIn(stackUV, U.stackRect, project(U.screenToPlate, screen + d)).rgb;
    if (ahead.b > 0.001) return ahead.rg - st;
    return st - spriteIn(stackUV, U.stackRect, project(U.screenToPlate, screen - d)).rg;
}

// What holds still from one frame to the next while the record turns: the lit room, the bounce,
// the sleeves, the record's sheen, the LEDs, the rainy day's colour. Alpha: the record's coverage,
// where the turning specks are laid on later.
vec4 stillRoom(vec2 screen, vec2 p, vec2 uv) {
    // 1. Light.
    vec3 lin3 = lightAt(uv);

    // 2. Cover bounce: the plates saw a white sleeve; tint its bounced light with the art.
    if (U.bounceRect.z > 0.0) {
        vec2 bu = (p - U.bounceRect.xy) / U.bounceRect.zw;
        vec3 b = texture(sampler2D(bounce0, sprite), bu).rgb * U.bounceWeights.x
               + texture(sampler2D(bounce1, sprite), bu).rgb * U.bounceWeights.y;
        lin3 = max(lin3 + b * (U.artMean.rgb - 1.0), vec3(0.0));
    }

    // 3. Top cover of the record stack.
    if (U.stackRect.z > 0.0) {
        vec3 suv = spriteIn(stackUV, U.stackRect, p).rgb;
        if (suv.b > 0.001) {
            float g = showcaseGain(lightAt(U.probes[2].zw), U.showcase.w, U.tone.z);
            vec3 a = textureGrad(sampler2D(stackArt, art), suv.rg, stackStep(screen, suv.rg, vec2(1.0, 0.0)),
                                 stackStep(screen, suv.rg, vec2(0.0, 1.0))).rgb;
            lin3 *= mix(vec3(1.0), a * g, suv.b);
        }
    }

    // 4. Standing sleeve.
    float cm = spriteIn(coverMask, U.coverMaskRect, p).r;
    if (cm > 0.001) {
        vec2 st = project(U.coverInv, p);
        mat2 g = screenGrad(U.coverInv, screen);
        vec3 a = mix(textureGrad(sampler2D(artOld, art), st, g[0], g[1]).rgb,
                     textureGrad(sampler2D(artNew, art), st, g[0], g[1]).rgb, U.cover.x);
        vec3 avg = (lightAt(U.probes[0].xy) + lightAt(U.probes[0].zw) + lightAt(U.probes[1].xy)
                  + lightAt(U.probes[1].zw) + lightAt(U.probes[2].xy)) / 5.0;
        float artLum = luminance(U.artMean.rgb);
        lin3 *= mix(vec3(1.0), a * showcaseGain(avg, artLum, U.tone.z), cm);
    }

    // 5. Live record: its grooves and sheen are the same at every turn.
    float cov = 0.0;
    if (U.recordLight.w > 0.0) {
        vec2 q = project(U.recordInv, p);
        float R = U.recordGeo.x;
        float rmm = length(q) * R;
        float aa = max(fwidth(rmm), 0.02);
        if (U.recordMaskRect.z > 0.0) {
            cov = spriteIn(recordMask, U.recordMaskRect, p).r;
        } else {
            cov = clamp((R - rmm) / aa, 0.0, 1.0) * clamp((rmm - U.recordGeo.y - 0.3) / aa, 0.0, 1.0);
        }
        if (cov > 0.001) {
            bool passes = U.recordRect.z > 0.0;
            vec3 S;
            float D;
            if (passes) {
                vec2 ru = (p - U.recordRect.xy) / U.recordRect.zw;
                vec4 r = texture(sampler2D(rec0, sprite), ru) * U.recordMisc.z
                       + texture(sampler2D(rec1, sprite), ru) * U.recordMisc.w;
                S = r.rgb;
                D = r.a;
            } else {
                D = luminance(lightAt(U.recordMisc.xy));
                S = lin3;
            }
            float groove = 0.0;
            for (uint b = 0u; b < min(U.bandCount, 16u); ++b) {
                vec4 e4 = U.bands[b >> 1];
                vec2 e = (b & 1u) == 0u ? e4.xy : e4.zw;
                groove += clamp((e.x - rmm) / aa + 0.5, 0.0, 1.0) * clamp((rmm - e.y) / aa + 0.5, 0.0, 1.0);
            }
            groove = clamp(groove, 0.0, 1.0);
            vec2 dir = q / max(length(q), 1e-4);
            float ang = acos(clamp(dot(dir, U.recordLight.xy), -1.0, 1.0));
            float sig = 0.045 + 1.8 / max(rmm, 10.0);
            float streak = exp(-(ang / sig) * (ang / sig)) + 0.55 * exp(-((PI - ang) / sig) * ((PI - ang) / sig));
            vec3 Lc = U.recordColor.w > 0.5 ? U.recordColor.rgb : vec3(D * 1.5);
            float ripple = 0.85 + 0.15 * sin(rmm * 40.0) * clamp(1.0 - aa * 8.0, 0.0, 1.0);
            float sheen = mix(0.15, 1.0, groove) * ripple;
            float edge = smoothstep(R - 1.6, R - 0.4, rmm);
            vec3 col = (passes ? vec3(0.028 * D) : vec3(0.0))
                     + S * (passes ? mix(0.85, 0.5, groove) : mix(1.0, 0.8, groove))
                     + Lc * U.recordLight.z * streak * sheen;
            col += (S * 0.6 + Lc * U.recordLight.z * 0.15 * streak) * edge;
            lin3 = mix(lin3, col, cov);
        } else {
            cov = 0.0;
        }
    }

    // 6. Speed LEDs: a core and a long faint glow.
    for (int k = 0; k < 2; ++k) {
        vec4 L = k == 0 ? U.led33 : U.led45;
        vec3 color = k == 0 ? U.led33Color.rgb : U.led45Color.rgb;
        if (L.w > 0.001) {
            float d = distance(p, L.xy) / max(L.z, 0.5);
            lin3 += color * L.w * (exp(-1.5 * d * d) + 0.03 * exp(-0.45 * d));
        }
    }

    // 7. Rainy-day light.
    return vec4(rainyDay(lin3), cov);
}

// Whether a cell of the record (ring of 1/1.3 mm, one of 260 sectors) holds a speck: about one in
// 670. Integers, exact on every device, so the moving layer's regions know the specks beforehand.
bool speckCell(uvec2 c) {
    uint h = (c.x * 0x8da6b343u) ^ (c.y * 0xd8163841u);
    h ^= h >> 15;
    h *= 0x2c1b3c6du;
    h ^= h >> 12;
    h *= 0x297a2d39u;
    h ^= h >> 15;
    return h % 10000u < 15u;
}

// What changes every frame, laid over the still room: the rain running down the glass, the
// record's specks and label turning, the strobe, the tonearm and its shadow, and the front layers
// over them. False where none of them reaches p, which is then the still room as it is.
bool movingParts(vec2 screen, vec2 p, vec4 still, out vec3 result) {
    mat2 labelGrad = screenGrad(U.labelInv, screen);
    vec3 lin3 = still.rgb;
    bool touched = false;

    // 8. Rain on the window glass.
    if (RAIN && (PARTS & 1u) != 0u && U.rain.w > 0.0 && near(U.glassRect, p)) {
        float gm = spriteIn(glassMask, U.glassRect, p).r;
        float dc = U.dust.y > 0.0 ? spriteIn(dustMask, U.dustRect, p).r : 0.0;
        float through = 1.0 - dc * (1.0 - U.dust.x);
        if (gm > 0.001) {
            touched = true;
            float cellPx = U.plateSize.x * 0.011;
            vec2 g = (p + dc * vec2(0.18, 0.12) * cellPx) / cellPx;
            float t = U.rain.x;
            vec2 offs = vec2(0.0);
            float dm = 0.0;

            vec2 id = floor(g);
            vec2 f = fract(g) - 0.5;
            if (hash(id) < 0.1 + 0.35 * U.rain.y) {
                vec2 c = (vec2(hash(id + 7.3), hash(id + 13.1)) - 0.5) * 0.6;
                float r = 0.10 + 0.18 * hash(id + 3.7);
                vec2 v = (f - c) / r;
                float d = length(v);
                float m = smoothstep(1.0, 0.85 - 0.35 * dc, d);
                dm = max(dm, m);
                offs += v * m * (1.0 - d * d);
            }

            float colId = floor(g.x * 0.5);
            float hc = hash(vec2(colId, 1.7));
            if (hc < 0.08 + 0.45 * U.rain.y) {
                float speed = 0.25 + 0.5 * hash(vec2(colId, 9.1));
                float y = g.y * 0.5 - t * speed + hc * 50.0;
                float fy = fract(y);
                float fx = fract(g.x * 0.5) - 0.5 - (hash(vec2(colId, 4.4)) - 0.5) * 0.5 + 0.04 * sin(3.0 * y);
                vec2 v = vec2(fx / 0.09, (fy - 0.5) / 0.14);
                float d = length(v);
                float m = smoothstep(1.0, 0.8 - 0.35 * dc, d);
                float trail = smoothstep(0.03, 0.0, abs(fx)) * smoothstep(0.5, 1.0, fy) * 0.4;
                dm = max(dm, max(m, trail));
                offs += v * m * 0.8;
            }

            dm *= through;
            if (dm > 0.001) {
                vec2 ruv = (p - offs * cellPx * 1.2) * U.plateSize.zw;
                float spread = 0.0015 * (1.0 + 2.0 * dc);
                vec3 refr = vec3(0.0);
                for (uint i = 0u; i < MIXES; ++i) {
                    int k = int(i);
                    refr += (mixTap(k, ruv) + mixTap(k, ruv + vec2(spread, 0.0)) + mixTap(k, ruv - vec2(0.0, spread)))
                          / 3.0 * U.mixWeights[i];
                }
                lin3 = mix(lin3, rainyDay(refr * 0.92), dm * gm);
            }
            lin3 = mix(lin3, lin3 * vec3(0.93, 0.96, 1.0), gm * through * U.rain.y * 0.5);
        }
    }

    // 9. Specks on the record, turning with it.
    if ((PARTS & 2u) != 0u && still.a > 0.001) {
        vec2 q = project(U.recordInv, p);
        float rmm = length(q) * U.recordGeo.x;
        float a = atan(q.y, q.x) + U.label.x;
        if (speckCell(uvec2(floor(rmm * 1.3), floor(fract(a / (2.0 * PI)) * 260.0)))) {
            touched = true;
            float D = recordDiffuse(p);
            vec3 Lc = U.recordColor.w > 0.5 ? U.recordColor.rgb : vec3(D * 1.5);
            lin3 += still.a * (vec3(D * 0.03) + Lc * 0.01);
        }
    }

    // 10. Label, turning with the record, with an optional motion-blur arc.
    if ((PARTS & 4u) != 0u && near(U.labelMaskRect, p)) {
        float lm = spriteIn(labelMask, U.labelMaskRect, p).r;
        if (lm > 0.001) {
            touched = true;
            vec2 q = project(U.labelInv, p);
            int n = max(1, int(U.label.z));
            vec3 acc = vec3(0.0);
            for (int k = 0; k < n; ++k) {
                float t = n > 1 ? float(k) / float(n - 1) - 0.5 : 0.0;
                float ang = U.label.x - U.label.y * t;
                mat2 turn = mat2(cos(ang), sin(ang), -sin(ang), cos(ang));
                vec2 l = turn * q;
                vec2 st = vec2(l.x * 0.5 + 0.5, 0.5 - l.y * 0.5);
                vec2 gx = turn * labelGrad[0] * vec2(0.5, -0.5), gy = turn * labelGrad[1] * vec2(0.5, -0.5);
                acc += mix(textureGrad(sampler2D(labelOld, art), st, gx, gy).rgb,
                           textureGrad(sampler2D(labelNew, art), st, gx, gy).rgb, U.cover.x);
            }
            float g = showcaseGain(lightAt(U.recordMisc.xy), U.tone.y, U.showcase.y);
            lin3 *= mix(vec3(1.0), acc / float(n) * g, lm);
        }
    }

    // 11. Platter strobe.
    if ((PARTS & 8u) != 0u && near(U.strobeRect, p)) {
        vec4 s = spriteIn(strobeTex, U.strobeRect, p);
        if (s.g > 0.001) {
            touched = true;
            float f = fract((s.r * 2.0 * PI + U.strobe.y) * U.strobe.x / (2.0 * PI));
            vec2 dd = vec2((f - 0.5) * 2.2, s.b > 0.0 ? (s.b - 0.5) * 2.2 : 0.0);
            float dotv = smoothstep(0.8, 0.5, length(dd));
            lin3 += U.strobeColor.rgb * mix(0.3, dotv, U.strobe.z) * s.g * U.strobe.w;
        }
    }

    // 12. Tonearm: shadow, reflection in the dust cover, then the arm over everything below.
    if (ARMS > 0u && (PARTS & (16u | 64u | 128u)) != 0u) {
        vec2 src[2] = vec2[2](project(U.armInv[0], p), project(U.armInv[1], p));
        bool reached = false;
        for (uint j = 0u; j < ARMS; ++j) {
            vec2 s = src[j >> 1];
            reached = reached || near(U.armRects[j], s) || near(U.shadowRects[j], s) || near(U.reflRects[j], p);
        }
        if (reached) {
            touched = true;
            vec4 c = vec4(0.0);
            float shade = 0.0, shadeW = 0.0;
            for (uint j = 0u; j < ARMS; ++j) {
                vec2 s = src[j >> 1];
                float w = U.armWeights[j];
                if ((PARTS & 16u) != 0u) c += armTap(int(j), (s - U.armRects[j].xy) / U.armRects[j].zw) * w;
                vec4 sr = U.shadowRects[j];
                if ((PARTS & 64u) != 0u && sr.z > 0.0) {
                    vec2 su = (s - sr.xy) / sr.zw;
                    bool inside = all(greaterThanEqual(su, vec2(0.0))) && all(lessThanEqual(su, vec2(1.0)));
                    shade += (inside ? shadowTap(int(j), su) : 1.0) * w;
                    shadeW += w;
                }
            }
            if (shadeW > 0.0) lin3 *= mix(1.0, shade / shadeW, shadeW);
            for (uint j = 0u; j < ARMS; ++j) {
                vec4 rr = U.reflRects[j];
                if ((PARTS & 128u) != 0u && rr.z > 0.0) lin3 += reflTap(int(j), (p - rr.xy) / rr.zw) * U.armWeights[j];
            }
            lin3 = c.rgb + (1.0 - c.a) * lin3;
        }
    }

    // 13. Front layers; nothing is drawn over them.
    if (FRONTS > 0u && (PARTS & 32u) != 0u && (near(U.frontRects[0], p) || (FRONTS > 1u && near(U.frontRects[1], p)))) {
        touched = true;
        vec4 c = spriteIn(front0, U.frontRects[0], p) * U.frontWeights.x;
        if (FRONTS > 1u) c += spriteIn(front1, U.frontRects[1], p) * U.frontWeights.y;
        lin3 = c.rgb + (1.0 - c.a) * lin3;
    }
    result = lin3;
    return touched;
}

// Linear light to the screen's colour: vignette, grain, tone, dither.
vec4 finish(vec3 lin3, vec2 p, vec2 screen) {
    // Vignette, in plate pixels so it matches the offline renders.
    vec2 dv = (p - 0.5 * U.plateSize.xy) / (0.5 * U.plateSize.x);
    lin3 *= max(0.0, 1.0 - U.look.x * dot(dv, dv));

    // Grain fixed to the plate pixel, so base and layers agree.
    vec2 gp = floor(p);
    float gauss = (hash(gp + 3.1) + hash(gp + 7.7) + hash(gp + 11.3) - 1.5) * 2.0;
    lin3 += gauss * U.look.z * sqrt(max((lin3.r + lin3.g + lin3.b) / 3.0, 0.0) + 1e-4);

    vec3 o = agx(lin3, U.look.y, U.look.w, U.tone.x);

    // Dither against banding.
    o += (hash(screen) + hash(screen + 17.31) - 1.0) / 255.0;
    return vec4(o, 1.0);
}

// The whole composite, or one of its halves for a moving layer: the still room into a linear
// texture (redrawn only when it changes), that texture finished, and the moving parts over it.
void main() {
#if defined(STEAM_UP)
    // The steam, drawn at half the layer's resolution, filtered up (premultiplied, so filtering
    // it is exact).
    outColor = texture(sampler2D(steamTex, lin), gl_FragCoord.xy * 0.5 / vec2(textureSize(sampler2D(steamTex, lin), 0)));
#else
    vec2 screen = gl_FragCoord.xy + U.origin.xy;
    vec2 p = project(U.screenToPlate, screen);
#if defined(COMPOSITE_STILL)
    outColor = stillRoom(screen, p, p * U.plateSize.zw);
#elif defined(COMPOSITE_TONE)
    outColor = finish(texelFetch(sampler2D(stillTex, lin), ivec2(gl_FragCoord.xy), 0).rgb, p, screen);
#elif defined(COMPOSITE_MOVING)
    vec3 lin3;
    // origin.z: the finished still is in the target already, so untouched pixels are left alone.
    if (!movingParts(screen, p, texelFetch(sampler2D(stillTex, lin), ivec2(screen - U.stillOrigin.xy), 0), lin3) && U.origin.z > 0.5) discard;
    outColor = finish(lin3, p, screen);
#else
    vec3 lin3;
    movingParts(screen, p, stillRoom(screen, p, p * U.plateSize.zw), lin3);
    outColor = finish(lin3, p, screen);
#endif
#endif
}
#endif

#ifdef STEAM
layout(set = 0, binding = 0, std430) readonly buffer SteamUniforms {
    mat3 screenToPlate;
    vec4 plateSize;
    vec4 origin;
    vec4 rect;
    vec4 params;
    vec4 mixWeights;
    uint mixCount;
    uint pad0;
    uint pad1;
    uint pad2;
} S;

float hash3(vec3 p) {
    p = fract(p * 0.3183099 + 0.1);
    p *= 17.0;
    return fract(p.x * p.y * p.z * (p.x + p.y + p.z));
}

float vnoise(vec3 x) {
    vec3 i = floor(x);
    vec3 f = fract(x);
    f = f * f * (3.0 - 2.0 * f);
    return mix(mix(mix(hash3(i + vec3(0, 0, 0)), hash3(i + vec3(1, 0, 0)), f.x),
                   mix(hash3(i + vec3(0, 1, 0)), hash3(i + vec3(1, 1, 0)), f.x), f.y),
               mix(mix(hash3(i + vec3(0, 0, 1)), hash3(i + vec3(1, 0, 1)), f.x),
                   mix(hash3(i + vec3(0, 1, 1)), hash3(i + vec3(1, 1, 1)), f.x), f.y), f.z);
}

float fbm(vec3 x) {
    float v = 0.0, a = 0.5;
    for (int k = 0; k < 4; ++k) {
        v += a * vnoise(x);
        x = x * 2.03 + 17.1;
        a *= 0.5;
    }
    return v;
}

// q: x from −1 to 1 across the region, y from 0 at the cup to 1 at the top.
float steamDensity(vec2 q, float t) {
    float d = 0.0;
    for (int i = 0; i < 3; ++i) {
        float seed = float(i) * 7.31;
        float wander = fbm(vec3(q.y * 2.2 - t * 0.32, seed, t * 0.05)) - 0.5;
        float cx = float(i - 1) * 0.10 + wander * (0.15 + 1.1 * q.y);
        float width = 0.035 + 0.20 * q.y;
        float u = (q.x - cx) / width;
        float core = exp(-u * u);
        float breakup = fbm(vec3(q.x * 3.0 + wander, q.y * 5.0 - t * 0.55, t * 0.12 + seed));
        d += core * smoothstep(0.38, 0.72, breakup) * (0.75 + 0.25 * sin(t * 0.21 + seed));
    }
    float fade = smoothstep(0.0, 0.10, q.y) * (1.0 - smoothstep(0.35, 1.0, q.y));
    return d * fade;
}

void main() {
    vec2 screen = gl_FragCoord.xy * S.origin.z + S.origin.xy;
    vec2 p = project(S.screenToPlate, screen);
    vec2 q = vec2((p.x - S.rect.x) / S.rect.z * 2.0 - 1.0, 1.0 - (p.y - S.rect.y) / S.rect.w);
    if (q.y < 0.0) {
        outColor = vec4(0.0);
        return;
    }
    float t = S.params.x;
    float dens = steamDensity(q, t);
    if (WRAP && t < 10.0) dens = mix(steamDensity(q, t + S.params.z), dens, t / 10.0);

    vec2 cupUV = vec2(S.rect.x + 0.5 * S.rect.z, S.rect.y + 0.8 * S.rect.w) * S.plateSize.zw;
    vec3 light = vec3(0.0);
    for (uint i = 0u; i < MIXES; ++i) light += mixTap(int(i), cupUV) * S.mixWeights[i];
    vec3 tint = sqrt(light / (1.0 + light));
    float L = luminance(light);
    float visible = clamp(0.03 / (L + 0.008), 0.04, 1.0);
    vec3 add = tint * clamp(dens, 0.0, 1.0) * S.params.y * visible;
    float a = clamp(max(add.r, max(add.g, add.b)) * 0.35, 0.0, 1.0);
    outColor = vec4(add, a);
}
#endif
