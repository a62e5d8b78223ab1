// The fast way to read "library.json": simdjson parses the text, and each row's fields are
// decoded straight into a `LibraryItem` by the item's own field list, with no document tree
// in between. It is a shortcut, never a second set of rules: it takes only what it can read
// exactly as the plain reader would (keys in strictly ascending order, as every save writes
// them; numbers and texts as nlohmann gives them to the decoders) and hands anything else
// back to the plain reader, which decides. A library as we save it is read the fast way
// whole; a damaged one is read the plain way whole, so both see rows in the same order.
#pragma once

#include "core/library/library_item.hpp"
#include "core/support/json.hpp"

#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace korvalen::LibraryFastReader {

struct Document {
  std::vector<LibraryItem> items;
  std::optional<json::Json> nextID;  // the "nextID" value, when present
};

// Absent when the text is not something the shortcut reads whole: not JSON to simdjson, not
// an object with an "items" list, keys out of order, a NUL byte, or any row that it cannot
// decode or that `admit` turns away. The plain reader then reads it and says what is wrong.
// `admit` sees the rows in order.
std::optional<Document> read(std::string_view text, const std::function<bool(const LibraryItem&)>& admit);

}  // namespace korvalen::LibraryFastReader
