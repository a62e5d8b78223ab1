#include "core/support/jsonc.hpp"

namespace korvalen::Jsonc {
namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// The index just past the comment starting at `at` ("//" or "/*"); a line comment stops
// before its line feed, an unterminated comment runs to the end.
std::size_t commentEnd(std::string_view text, std::size_t at) {
  if (text[at + 1] == '/') {
    const auto feed = text.find('\n', at + 2);
    return feed == std::string_view::npos ? text.size() : feed;
  }
  const auto close = text.find("*/", at + 2);
  return close == std::string_view::npos ? text.size() : close + 2;
}

bool commentStarts(std::string_view text, std::size_t at) {
  return text[at] == '/' && at + 1 < text.size() && (text[at + 1] == '/' || text[at + 1] == '*');
}

// Whether the next significant character after `at` closes an object or a list.
bool closesNext(std::string_view text, std::size_t at) {
  while (at < text.size()) {
    if (isSpace(text[at])) {
      ++at;
    } else if (commentStarts(text, at)) {
      at = commentEnd(text, at);
    } else {
      return text[at] == '}' || text[at] == ']';
    }
  }
  return false;
}

}  // namespace

Stripped stripWithReport(std::string_view text) {
  Stripped out;
  out.text.reserve(text.size());
  bool inString = false;
  bool escaped = false;
  std::size_t at = 0;
  while (at < text.size()) {
    const char c = text[at];
    if (inString) {
      out.text.push_back(c);
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      ++at;
    } else if (c == '"') {
      out.text.push_back(c);
      inString = true;
      ++at;
    } else if (commentStarts(text, at)) {
      const bool block = text[at + 1] == '*';
      at = commentEnd(text, at);
      if (block) {
        out.text.push_back(' ');
      }
      out.hadComments = true;
    } else if (c == ',') {
      if (!closesNext(text, at + 1)) {
        out.text.push_back(c);
      }
      ++at;
    } else {
      out.text.push_back(c);
      ++at;
    }
  }
  return out;
}

std::string strip(std::string_view text) {
  return stripWithReport(text).text;
}

}  // namespace korvalen::Jsonc
