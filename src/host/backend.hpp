// Which display server a desktop program talks to: `--backend` when given, else Wayland when
// WAYLAND_DISPLAY is set, else X11 when DISPLAY is, else one line naming both.
#pragma once

#include "core/support/paths.hpp"

#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen::host {

enum class Backend { x11, wayland };
std::string_view toString(Backend backend);
std::optional<Backend> backendNamed(std::string_view word);

[[nodiscard]] std::expected<Backend, std::string> chooseBackend(std::optional<Backend> asked,
                                                                const paths::Environment& environment);

}  // namespace korvalen::host
