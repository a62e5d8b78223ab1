// Regular expressions with ICU's rules, the way user-visible text is matched everywhere:
// \b, \w and \d as Unicode defines them (a combining mark belongs to the word before it;
// "٣٠" is a number), positions in UTF-16 units. ICU stays out of this header.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::text {

class Pattern {
 public:
  struct Match {
    std::int32_t start = 0;  // UTF-16 offsets into the searched text
    std::int32_t end = 0;
    std::vector<std::string> groups;  // UTF-8; [0] is the whole match, "" a group that took no part
  };

  // A pattern that does not compile is a programming error.
  explicit Pattern(std::string_view expression, bool ignoreCase = false);
  ~Pattern();
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  [[nodiscard]] std::optional<Match> first(std::string_view text) const;
  [[nodiscard]] std::vector<Match> all(std::string_view text) const;
  // `text` with every match replaced by what `replacement` makes of it (UTF-8 in and out).
  // Matches never overlap, so the text is rebuilt in one pass.
  [[nodiscard]] std::string replaced(std::string_view text,
                                     const std::function<std::string(const Match&)>& replacement) const;
  // The number of a named group.
  [[nodiscard]] std::size_t group(std::string_view name) const;

 private:
  [[nodiscard]] std::vector<Match> find(std::string_view text, std::size_t limit) const;
  struct Compiled;
  std::unique_ptr<const Compiled> compiled_;
};

// Decimal digits of any script as ASCII ("٣٠" -> "30"), so the locale-free number readers
// take what \d matched; everything else stays as it is.
std::string asciiDigits(std::string_view text);

}  // namespace korvalen::text
