// Credentials in diagnostic text (API keys, tokens, secrets, passwords in JSON members or
// query parameters) are replaced before the text reaches a log; the name stays, so a reader
// still sees which credential was there and, for JSON, how long it was.
#pragma once

#include <string>
#include <string_view>

namespace korvalen::Redact {

std::string secrets(std::string_view text);

}  // namespace korvalen::Redact
