#include "core/rendering/appearance.hpp"

#include "core/support/precondition.hpp"

#include <algorithm>

namespace korvalen::Appearance {

Matrix colorMatrix(double dim, double saturation) {
  const double k = 1 - std::clamp(dim, 0.0, 0.95);
  const double s = std::clamp(saturation, 0.0, 1.0);
  const double r = luminanceRed;
  const double g = luminanceGreen;
  const double b = luminanceBlue;
  return {
      {k * (r + s * (1 - r)), k * r * (1 - s), k * r * (1 - s), 0},
      {k * g * (1 - s), k * (g + s * (1 - g)), k * g * (1 - s), 0},
      {k * b * (1 - s), k * b * (1 - s), k * (b + s * (1 - b)), 0},
      {0, 0, 0, 1},
      {0, 0, 0, 0},
  };
}

Colour apply(const Matrix& matrix, double r, double g, double b) {
  KORVALEN_PRECONDITION(matrix.size() >= 5);
  for (std::size_t row = 0; row < 5; ++row) {
    KORVALEN_PRECONDITION(matrix[row].size() >= 3);
  }
  const auto channel = [&](std::size_t c) {
    return std::clamp(r * matrix[0][c] + g * matrix[1][c] + b * matrix[2][c] + matrix[4][c], 0.0, 1.0);
  };
  return Colour{channel(0), channel(1), channel(2)};
}

bool isIdentity(double dim, double saturation) {
  return saturation >= 1 && dim <= 0;
}

std::array<std::array<double, 4>, 5> ciColorMatrix(double dim, double saturation) {
  const auto m = colorMatrix(dim, saturation);
  std::array<std::array<double, 4>, 5> vectors{};
  for (std::size_t column = 0; column < 4; ++column) {
    vectors[column] = {m[0][column], m[1][column], m[2][column], m[3][column]};
  }
  vectors[4] = {m[4][0], m[4][1], m[4][2], m[4][3]};
  return vectors;
}

}  // namespace korvalen::Appearance
