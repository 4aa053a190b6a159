#pragma once

#include <algorithm>
#include <cmath>

// A 3-vector of doubles for the generator's geometry (world millimetres) and colours (linear RGB).
struct Vec3 {
    double x = 0, y = 0, z = 0;

    constexpr Vec3() = default;
    constexpr Vec3(double x, double y, double z)
        : x(x)
        , y(y)
        , z(z)
    {
    }

    constexpr Vec3 operator+(const Vec3 &o) const { return {x + o.x, y + o.y, z + o.z}; }
    constexpr Vec3 operator-(const Vec3 &o) const { return {x - o.x, y - o.y, z - o.z}; }
    constexpr Vec3 operator-() const { return {-x, -y, -z}; }
    constexpr Vec3 operator*(double s) const { return {x * s, y * s, z * s}; }
    constexpr Vec3 operator/(double s) const { return {x / s, y / s, z / s}; }
    // Component-wise product: colour times colour.
    constexpr Vec3 operator*(const Vec3 &o) const { return {x * o.x, y * o.y, z * o.z}; }
    Vec3 &operator+=(const Vec3 &o)
    {
        x += o.x;
        y += o.y;
        z += o.z;
        return *this;
    }
    Vec3 &operator*=(double s)
    {
        x *= s;
        y *= s;
        z *= s;
        return *this;
    }

    constexpr double dot(const Vec3 &o) const { return x * o.x + y * o.y + z * o.z; }
    constexpr Vec3 cross(const Vec3 &o) const { return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x}; }
    double length() const { return std::sqrt(dot(*this)); }
    Vec3 normalized() const
    {
        const double l = length();
        return l > 0 ? *this / l : Vec3{};
    }
    double luminance() const { return 0.2126 * x + 0.7152 * y + 0.0722 * z; }
};

inline constexpr Vec3 operator*(double s, const Vec3 &v) { return v * s; }

inline double clamp01(double v) { return std::clamp(v, 0.0, 1.0); }

inline double smoothstep(double e0, double e1, double v)
{
    const double t = clamp01((v - e0) / (e1 - e0));
    return t * t * (3 - 2 * t);
}

// Rotation of v about the z axis by `angle` radians (counter-clockwise seen from above).
inline Vec3 rotateZ(const Vec3 &v, double angle)
{
    const double c = std::cos(angle), s = std::sin(angle);
    return {c * v.x - s * v.y, s * v.x + c * v.y, v.z};
}
