// The dim and saturation colour matrix applied to wallpapers, and its application to a
// colour. Rows are the inputs red, green, blue, alpha, bias; columns the outputs red, green,
// blue, alpha.
#pragma once

#include <array>
#include <vector>

namespace korvalen::Appearance {

inline constexpr double luminanceRed = 0.2126;
inline constexpr double luminanceGreen = 0.7152;
inline constexpr double luminanceBlue = 0.0722;

using Matrix = std::vector<std::vector<double>>;

// dim clamped to [0, 0.95] (wider than the settings allow), saturation to [0, 1].
Matrix colorMatrix(double dim, double saturation);

struct Colour {
  double red = 0;
  double green = 0;
  double blue = 0;
  bool operator==(const Colour&) const = default;
};

// Each channel clamped to [0, 1]. A matrix smaller than five rows of three is a
// programming error.
Colour apply(const Matrix& matrix, double r, double g, double b);

bool isIdentity(double dim, double saturation);

// The same matrix as the colour-matrix filter's five vectors: the R, G, B and A output
// columns, then the bias row.
std::array<std::array<double, 4>, 5> ciColorMatrix(double dim, double saturation);

}  // namespace korvalen::Appearance
