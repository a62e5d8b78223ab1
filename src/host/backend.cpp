#include "host/backend.hpp"

#include "core/support/enum_words.hpp"

namespace korvalen::host {

namespace {
constexpr EnumWords<Backend, 2> backendWords{{{Backend::x11, "x11"}, {Backend::wayland, "wayland"}}};
}  // namespace

std::string_view toString(Backend backend) {
  return wordFor(backendWords, backend);
}

std::optional<Backend> backendNamed(std::string_view word) {
  return valueFor(backendWords, word);
}

std::expected<Backend, std::string> chooseBackend(std::optional<Backend> asked, const paths::Environment& environment) {
  if (asked) {
    return *asked;
  }
  const auto set = [&](std::string_view name) {
    const auto value = environment(name);
    return value && !value->empty();
  };
  if (set("WAYLAND_DISPLAY")) {
    return Backend::wayland;
  }
  if (set("DISPLAY")) {
    return Backend::x11;
  }
  return std::unexpected(std::string("no display: neither WAYLAND_DISPLAY (Wayland) nor DISPLAY (X11) is set"));
}

}  // namespace korvalen::host
