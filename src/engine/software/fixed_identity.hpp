// A screen whose stable identifier the host already knows.
#pragma once

#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"

#include <string>

namespace korvalen::engine {

class FixedIdentity final : public scene::ScreenIdentity {
 public:
  explicit FixedIdentity(std::string id) : id_(std::move(id)) {}
  std::string stableID(const scene::Screen&) override { return id_; }

 private:
  std::string id_;
};

}  // namespace korvalen::engine
