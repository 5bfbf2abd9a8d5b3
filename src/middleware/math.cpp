// KQ::Math: single-precision values, double-precision intermediate
// arithmetic. The extra precision matters in two places: extracting angles
// near pitch +-pi/2, where the roll and yaw terms are scaled by cos(pitch),
// and quaternions taken from transforms that are only nearly orthonormal
// (what the motion module returns).
#include "middleware/math.h"

#include <algorithm>
#include <cmath>
#include <ostream>

#include <Eigen/Core>

namespace KQ {
namespace Math {

namespace {

using Matrix3 = Eigen::Matrix3d;

// Below this |cos(pitch)| the roll cannot be told apart from the yaw in
// single precision: cos(float(pi/2)) is about 4.4e-8, and a float matrix
// carries rounding of about 6e-8 per entry.
constexpr double kGimbalEpsilon = 1e-6;

Matrix3 rotationOf(const Transform& t) {
  Matrix3 m;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) m(i, j) = t.r[i][j];
  return m;
}

void setRotation(Transform& t, const Matrix3& m) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) t.r[i][j] = static_cast<float>(m(i, j));
}

}  // namespace

// ---------------------------------------------------------------- Position3D

Position3D::Position3D(const std::vector<float>& v) {
  if (v.size() > 0) x = v[0];
  if (v.size() > 1) y = v[1];
  if (v.size() > 2) z = v[2];
}

Position3D Position3D::operator+(const Position3D& o) const { return Position3D(x + o.x, y + o.y, z + o.z); }
Position3D Position3D::operator-(const Position3D& o) const { return Position3D(x - o.x, y - o.y, z - o.z); }
Position3D Position3D::operator*(float s) const { return Position3D(x * s, y * s, z * s); }

std::vector<float> Position3D::toVector() const { return {x, y, z}; }

// ---------------------------------------------------------------- Position6D

Position6D::Position6D(const std::vector<float>& v) {
  float* fields[6] = {&x, &y, &z, &wx, &wy, &wz};
  for (std::size_t i = 0; i < 6 && i < v.size(); ++i) *fields[i] = v[i];
}

std::vector<float> Position6D::toVector() const { return {x, y, z, wx, wy, wz}; }

// ---------------------------------------------------------------- Quaternion

Quaternion::Quaternion(const std::vector<float>& v) {
  if (v.size() >= 4) {
    w = v[0];
    x = v[1];
    y = v[2];
    z = v[3];
  }
}

Quaternion Quaternion::inverse() const {
  const double n2 = double(w) * w + double(x) * x + double(y) * y + double(z) * z;
  if (n2 == 0.0) return *this;
  return Quaternion(static_cast<float>(w / n2), static_cast<float>(-x / n2), static_cast<float>(-y / n2),
                    static_cast<float>(-z / n2));
}

float Quaternion::norm() const {
  return static_cast<float>(std::sqrt(double(w) * w + double(x) * x + double(y) * y + double(z) * z));
}

std::vector<float> Quaternion::toVector() const { return {w, x, y, z}; }

// ---------------------------------------------------------------- Transform

Transform::Transform(const std::vector<float>& v) {
  if (v.size() != 12) return;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) r[i][j] = v[static_cast<std::size_t>(i * 4 + j)];
}

std::vector<float> Transform::toVector() const {
  std::vector<float> out;
  out.reserve(12);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) out.push_back(r[i][j]);
  return out;
}

Transform Transform::operator*(const Transform& o) const {
  Transform out;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 4; ++j) {
      double sum = j == 3 ? double(r[i][3]) : 0.0;
      for (int k = 0; k < 3; ++k) sum += double(r[i][k]) * o.r[k][j];
      out.r[i][j] = static_cast<float>(sum);
    }
  }
  return out;
}

Transform Transform::inverse() const {
  Transform out;
  for (int i = 0; i < 3; ++i) {
    double t = 0.0;
    for (int k = 0; k < 3; ++k) {
      out.r[i][k] = r[k][i];
      t -= double(r[k][i]) * r[k][3];
    }
    out.r[i][3] = static_cast<float>(t);
  }
  return out;
}

// ---------------------------------------------------------------- Pose2D

Pose2D::Pose2D(const std::vector<float>& v) {
  if (v.size() > 0) x = v[0];
  if (v.size() > 1) y = v[1];
  if (v.size() > 2) theta = v[2];
}

std::vector<float> Pose2D::toVector() const { return {x, y, theta}; }

// ---------------------------------------------------------------- conversions

Transform transformFromPosition6D(const Position6D& pose) {
  const double cx = std::cos(double(pose.wx)), sx = std::sin(double(pose.wx));
  const double cy = std::cos(double(pose.wy)), sy = std::sin(double(pose.wy));
  const double cz = std::cos(double(pose.wz)), sz = std::sin(double(pose.wz));
  Matrix3 m;  // Rz(wz) * Ry(wy) * Rx(wx)
  m << cz * cy, cz * sy * sx - sz * cx, cz * sy * cx + sz * sx,  //
      sz * cy, sz * sy * sx + cz * cx, sz * sy * cx - cz * sx,   //
      -sy, cy * sx, cy * cx;
  Transform t;
  setRotation(t, m);
  t.r[0][3] = pose.x;
  t.r[1][3] = pose.y;
  t.r[2][3] = pose.z;
  return t;
}

Transform transformFromQuaternion(const Quaternion& q) {
  const double w = q.w, x = q.x, y = q.y, z = q.z;
  const double n2 = w * w + x * x + y * y + z * z;
  Transform t;
  if (n2 == 0.0) return t;
  // 2/|q|^2 instead of 2: the rotation a non-unit q stands for, unscaled,
  // the same one operator*(Quaternion, Position3D) applies.
  const double s = 2.0 / n2;
  Matrix3 m;
  m << 1 - s * (y * y + z * z), s * (x * y - w * z), s * (x * z + w * y),  //
      s * (x * y + w * z), 1 - s * (x * x + z * z), s * (y * z - w * x),   //
      s * (x * z - w * y), s * (y * z + w * x), 1 - s * (x * x + y * y);
  setRotation(t, m);
  return t;
}

Transform transformFromPose2D(const Pose2D& pose) {
  Transform t;
  const double c = std::cos(double(pose.theta)), s = std::sin(double(pose.theta));
  t.r[0][0] = static_cast<float>(c);
  t.r[0][1] = static_cast<float>(-s);
  t.r[1][0] = static_cast<float>(s);
  t.r[1][1] = static_cast<float>(c);
  t.r[0][3] = pose.x;
  t.r[1][3] = pose.y;
  return t;
}

Transform transformFromPosition3D(const Position3D& p) {
  Transform t;
  t.r[0][3] = p.x;
  t.r[1][3] = p.y;
  t.r[2][3] = p.z;
  return t;
}

Quaternion quaternionFromTransform(const Transform& t) {
  // Shepperd's method: start from the largest of w, x, y, z so that the one
  // division is by a well-sized number; then normalise, since a matrix read
  // from floats is only nearly orthonormal.
  const Matrix3 m = rotationOf(t);
  const double trace = m(0, 0) + m(1, 1) + m(2, 2);
  double w, x, y, z;
  if (trace > m(0, 0) && trace > m(1, 1) && trace > m(2, 2)) {
    const double s = std::sqrt(1.0 + trace) * 2.0;  // 4w
    w = 0.25 * s;
    x = (m(2, 1) - m(1, 2)) / s;
    y = (m(0, 2) - m(2, 0)) / s;
    z = (m(1, 0) - m(0, 1)) / s;
  } else if (m(0, 0) > m(1, 1) && m(0, 0) > m(2, 2)) {
    const double s = std::sqrt(std::max(0.0, 1.0 + m(0, 0) - m(1, 1) - m(2, 2))) * 2.0;  // 4x
    if (s == 0.0) return Quaternion();
    w = (m(2, 1) - m(1, 2)) / s;
    x = 0.25 * s;
    y = (m(0, 1) + m(1, 0)) / s;
    z = (m(0, 2) + m(2, 0)) / s;
  } else if (m(1, 1) > m(2, 2)) {
    const double s = std::sqrt(std::max(0.0, 1.0 + m(1, 1) - m(0, 0) - m(2, 2))) * 2.0;  // 4y
    if (s == 0.0) return Quaternion();
    w = (m(0, 2) - m(2, 0)) / s;
    x = (m(0, 1) + m(1, 0)) / s;
    y = 0.25 * s;
    z = (m(1, 2) + m(2, 1)) / s;
  } else {
    const double s = std::sqrt(std::max(0.0, 1.0 + m(2, 2) - m(0, 0) - m(1, 1))) * 2.0;  // 4z
    if (s == 0.0) return Quaternion();
    w = (m(1, 0) - m(0, 1)) / s;
    x = (m(0, 2) + m(2, 0)) / s;
    y = (m(1, 2) + m(2, 1)) / s;
    z = 0.25 * s;
  }
  double n = std::sqrt(w * w + x * x + y * y + z * z);
  if (!(n > 0.0) || !std::isfinite(n)) return Quaternion();
  if (w < 0.0) n = -n;  // q and -q are the same rotation: keep w >= 0
  return Quaternion(static_cast<float>(w / n), static_cast<float>(x / n), static_cast<float>(y / n),
                    static_cast<float>(z / n));
}

Position3D position3DFromTransform(const Transform& t) { return Position3D(t.r[0][3], t.r[1][3], t.r[2][3]); }

Position6D position6DFromTransform(const Transform& t) {
  // Roll first, from the last row; then the roll is taken off the matrix
  // (R * Rx(-roll) = Rz(yaw) * Ry(pitch)) and yaw and pitch are read from
  // what is left. Yaw is so computed from entries that are not scaled by
  // cos(pitch), which keeps angles -> transform -> angles -> transform
  // consistent close to pitch +-pi/2. At the singularity itself roll is 0
  // and the whole turn about the vertical goes into yaw.
  const Matrix3 m = rotationOf(t);
  const double cosPitch = std::sqrt(m(2, 1) * m(2, 1) + m(2, 2) * m(2, 2));
  const double roll = cosPitch < kGimbalEpsilon ? 0.0 : std::atan2(m(2, 1), m(2, 2));
  const double cr = std::cos(roll), sr = std::sin(roll);
  // Columns 1 and 2 of R * Rx(-roll).
  const double n01 = cr * m(0, 1) - sr * m(0, 2);
  const double n11 = cr * m(1, 1) - sr * m(1, 2);
  const double n22 = sr * m(2, 1) + cr * m(2, 2);
  const double yaw = std::atan2(-n01, n11);
  const double pitch = std::atan2(-m(2, 0), n22);
  return Position6D(t.r[0][3], t.r[1][3], t.r[2][3], static_cast<float>(roll), static_cast<float>(pitch),
                    static_cast<float>(yaw));
}

Pose2D pose2DFromTransform(const Transform& t) {
  return Pose2D(t.r[0][3], t.r[1][3], static_cast<float>(std::atan2(double(t.r[1][0]), double(t.r[0][0]))));
}

// ---------------------------------------------------------------- printing

std::ostream& operator<<(std::ostream& out, const Position3D& p) {
  return out << "[" << p.x << ", " << p.y << ", " << p.z << "]";
}

std::ostream& operator<<(std::ostream& out, const Position6D& p) {
  return out << "[" << p.x << ", " << p.y << ", " << p.z << ", " << p.wx << ", " << p.wy << ", " << p.wz << "]";
}

std::ostream& operator<<(std::ostream& out, const Quaternion& q) {
  return out << "[" << q.w << ", " << q.x << ", " << q.y << ", " << q.z << "]";
}

}  // namespace Math
}  // namespace KQ
