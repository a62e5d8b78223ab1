#include "core/support/precondition.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

int checkedHalf(int value) {
  KORVALEN_PRECONDITION(value % 2 == 0);
  return value / 2;
}

TEST(PreconditionDeathTest, AFailedConditionStopsTheProcessNamingIt) {
  EXPECT_EQ(checkedHalf(4), 2);
  EXPECT_DEATH(checkedHalf(3), "precondition failed: value % 2 == 0");
}

}  // namespace
}  // namespace korvalen
