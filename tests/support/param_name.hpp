// Names table-driven test cases after their `name` field, so a failure says which row.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace korvalen::testing {

struct ByName {
  template <class T>
  std::string operator()(const ::testing::TestParamInfo<T>& row) const {
    return row.param.name;
  }
};

}  // namespace korvalen::testing
