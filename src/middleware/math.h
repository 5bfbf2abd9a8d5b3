// KQ::Math: the middleware's small rigid-body math library, single precision.
//
// Conventions (every caller relies on them):
//  - lengths in metres, angles in radians;
//  - Quaternion is (w, x, y, z), w first; the default is the identity.
//    Nothing here normalises a quaternion unless asked: callers that compose
//    poses keep whatever norm they were given.
//  - Position6D angles (wx, wy, wz) are roll, pitch, yaw: the rotation is
//    Rz(wz) * Ry(wy) * Rx(wx). transformFromPosition6D and
//    position6DFromTransform are inverse to each other, also at pitch +-pi/2
//    (there roll is folded into yaw, the only choice that is well defined).
//  - Transform is the 3x4 homogeneous matrix [R | t], 12 floats row by row;
//    the default is the identity.
//  - Pose2D is a planar pose (x, y, theta): rotation theta about z.
//
// Threading: plain values and pure functions; no shared state.
#ifndef KQ_MIDDLEWARE_MATH_H_
#define KQ_MIDDLEWARE_MATH_H_

#include <iosfwd>
#include <vector>

namespace KQ {
namespace Math {

struct Position3D {
  float x = 0.0f, y = 0.0f, z = 0.0f;
  Position3D() = default;
  Position3D(float px, float py, float pz) : x(px), y(py), z(pz) {}
  // Takes the first 3 floats; missing ones stay 0.
  explicit Position3D(const std::vector<float>& v);
  Position3D& operator+=(const Position3D& o);
  Position3D operator+(const Position3D& o) const;
  Position3D operator-(const Position3D& o) const;
  Position3D operator-() const;
  Position3D operator*(float s) const;
  std::vector<float> toVector() const;
};

struct Position6D {
  float x = 0.0f, y = 0.0f, z = 0.0f, wx = 0.0f, wy = 0.0f, wz = 0.0f;
  Position6D() = default;
  Position6D(float px, float py, float pz, float pwx, float pwy, float pwz)
      : x(px), y(py), z(pz), wx(pwx), wy(pwy), wz(pwz) {}
  // Takes the first 6 floats; missing ones stay 0.
  explicit Position6D(const std::vector<float>& v);
  std::vector<float> toVector() const;
};

struct Quaternion {
  float w = 1.0f, x = 0.0f, y = 0.0f, z = 0.0f;
  Quaternion() = default;
  Quaternion(float qw, float qx, float qy, float qz) : w(qw), x(qx), y(qy), z(qz) {}
  // Takes w, x, y, z; a vector of fewer than 4 floats gives the identity.
  explicit Quaternion(const std::vector<float>& v);
  // Conjugate divided by the squared norm (the exact inverse of any non-zero
  // quaternion); the zero quaternion is returned unchanged.
  Quaternion inverse() const;
  Quaternion& operator*=(const Quaternion& o);  // Hamilton product, this on the left
  float norm() const;
  std::vector<float> toVector() const;
};

// Hamilton product a * b. Defined below, inline, with the other operations
// a pose query composes once per edge.
Quaternion operator*(const Quaternion& a, const Quaternion& b);
// Rotates v by q: q * (0, v) * q^-1 (for a unit q, the usual rotation).
Position3D operator*(const Quaternion& q, const Position3D& v);

struct Transform {
  // r[i][j]: row i, column j; column 3 is the translation.
  float r[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
  Transform() = default;
  // 12 floats row by row; a vector of another length gives the identity.
  explicit Transform(const std::vector<float>& v);
  std::vector<float> toVector() const;
  Transform operator*(const Transform& o) const;
  Transform inverse() const;  // rigid inverse [R^T | -R^T t]
};

struct Pose2D {
  float x = 0.0f, y = 0.0f, theta = 0.0f;
  Pose2D() = default;
  Pose2D(float px, float py, float pt) : x(px), y(py), theta(pt) {}
  // Takes x, y, theta; missing ones stay 0.
  explicit Pose2D(const std::vector<float>& v);
  std::vector<float> toVector() const;
};

Transform transformFromPosition6D(const Position6D& pose);
Transform transformFromQuaternion(const Quaternion& q);   // rotation only, zero translation
Transform transformFromPose2D(const Pose2D& pose);
Transform transformFromPosition3D(const Position3D& p);   // translation only
Quaternion quaternionFromTransform(const Transform& t);    // unit quaternion with w >= 0
Position3D position3DFromTransform(const Transform& t);
Position6D position6DFromTransform(const Transform& t);
Pose2D pose2DFromTransform(const Transform& t);

// ------------------------------------------------ inline, per edge of a walk

inline Position3D& Position3D::operator+=(const Position3D& o) {
  x += o.x;
  y += o.y;
  z += o.z;
  return *this;
}

inline Position3D Position3D::operator-() const { return Position3D(-x, -y, -z); }

inline Quaternion operator*(const Quaternion& a, const Quaternion& b) {
  return Quaternion(a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z,  //
                    a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,  //
                    a.w * b.y + a.y * b.w + a.z * b.x - a.x * b.z,  //
                    a.w * b.z + a.z * b.w + a.x * b.y - a.y * b.x);
}

inline Position3D operator*(const Quaternion& q, const Position3D& v) {
  // q * (0, v) * q^-1, expanded: v + 2w(u x v) + 2u x (u x v), divided
  // through by |q|^2 so that a non-unit q still rotates without scaling.
  const double n2 = double(q.w) * q.w + double(q.x) * q.x + double(q.y) * q.y + double(q.z) * q.z;
  if (n2 == 0.0) return Position3D();
  const double w = q.w, ux = q.x, uy = q.y, uz = q.z;
  const double vx = v.x, vy = v.y, vz = v.z;
  // c = u x v
  const double cx = uy * vz - uz * vy;
  const double cy = uz * vx - ux * vz;
  const double cz = ux * vy - uy * vx;
  // d = u x c
  const double dx = uy * cz - uz * cy;
  const double dy = uz * cx - ux * cz;
  const double dz = ux * cy - uy * cx;
  const double s = 2.0 / n2;
  return Position3D(static_cast<float>(vx + s * (w * cx + dx)), static_cast<float>(vy + s * (w * cy + dy)),
                    static_cast<float>(vz + s * (w * cz + dz)));
}

inline Quaternion& Quaternion::operator*=(const Quaternion& o) {
  *this = *this * o;
  return *this;
}

std::ostream& operator<<(std::ostream& out, const Position3D& p);
std::ostream& operator<<(std::ostream& out, const Position6D& p);
std::ostream& operator<<(std::ostream& out, const Quaternion& q);

}  // namespace Math
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MATH_H_
