#pragma once

#include <cmath>

namespace TZLib {

//! Three-component vector. Float for point coordinates (local frame), double for global ones.
template<typename T> struct Vector3Tpl
{
    T x = 0;
    T y = 0;
    T z = 0;

    constexpr Vector3Tpl() = default;
    constexpr Vector3Tpl(T vx, T vy, T vz)
        : x(vx)
        , y(vy)
        , z(vz)
    {
    }
    template<typename U> static constexpr Vector3Tpl fromVector(const Vector3Tpl<U> &v)
    {
        return Vector3Tpl(static_cast<T>(v.x), static_cast<T>(v.y), static_cast<T>(v.z));
    }

    T &operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    T operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }

    constexpr Vector3Tpl operator+(const Vector3Tpl &o) const
    {
        return {x + o.x, y + o.y, z + o.z};
    }
    constexpr Vector3Tpl operator-(const Vector3Tpl &o) const
    {
        return {x - o.x, y - o.y, z - o.z};
    }
    constexpr Vector3Tpl operator-() const { return {-x, -y, -z}; }
    constexpr Vector3Tpl operator*(T s) const { return {x * s, y * s, z * s}; }
    constexpr Vector3Tpl operator/(T s) const { return {x / s, y / s, z / s}; }
    Vector3Tpl &operator+=(const Vector3Tpl &o)
    {
        x += o.x;
        y += o.y;
        z += o.z;
        return *this;
    }
    Vector3Tpl &operator-=(const Vector3Tpl &o)
    {
        x -= o.x;
        y -= o.y;
        z -= o.z;
        return *this;
    }
    Vector3Tpl &operator*=(T s)
    {
        x *= s;
        y *= s;
        z *= s;
        return *this;
    }
    constexpr bool operator==(const Vector3Tpl &o) const
    {
        return x == o.x && y == o.y && z == o.z;
    }
    constexpr bool operator!=(const Vector3Tpl &o) const { return !(*this == o); }

    constexpr T dot(const Vector3Tpl &o) const { return x * o.x + y * o.y + z * o.z; }
    constexpr Vector3Tpl cross(const Vector3Tpl &o) const
    {
        return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
    }
    constexpr T norm2() const { return dot(*this); }
    T norm() const { return std::sqrt(norm2()); }
    void normalize()
    {
        const T n = norm();
        if (n > 0)
            *this *= T(1) / n;
    }
};

template<typename T> constexpr Vector3Tpl<T> operator*(T s, const Vector3Tpl<T> &v)
{
    return v * s;
}

} // namespace TZLib

using PointCoordinateType = float;
using TZVector3 = TZLib::Vector3Tpl<float>;
using TZVector3d = TZLib::Vector3Tpl<double>;
