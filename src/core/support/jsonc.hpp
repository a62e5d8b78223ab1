// JSON with comments, as people write it by hand: line and block comments and trailing
// commas are taken out; nothing else is accepted beyond JSON.
#pragma once

#include <string>
#include <string_view>

namespace korvalen::Jsonc {

struct Stripped {
  std::string text;
  bool hadComments = false;
};

// Comments outside strings become nothing (a line comment keeps its line feed) or one space
// (a block comment), so "1/*x*/2" stays an error; a comma followed, past white space and
// comments, by "}" or "]" is dropped.
Stripped stripWithReport(std::string_view text);
std::string strip(std::string_view text);

}  // namespace korvalen::Jsonc
