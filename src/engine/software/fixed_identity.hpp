// A screen whose stable identifier the host already knows.
#pragma once

#include "core/screensaver/saver_platform.hpp"

#include <string>

namespace korvalen::engine {

class FixedIdentity final : public saver::ScreenIdentity {
 public:
  explicit FixedIdentity(std::string id) : id_(std::move(id)) {}
  std::string stableID(const saver::Screen&) override { return id_; }

 private:
  std::string id_;
};

}  // namespace korvalen::engine
