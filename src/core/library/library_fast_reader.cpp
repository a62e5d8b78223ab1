#include "core/library/library_fast_reader.hpp"

#include <simdjson.h>

#include <algorithm>
#include <vector>

namespace korvalen::LibraryFastReader {
namespace {

namespace dom = simdjson::dom;

// An element as nlohmann's parser would have made it: non-negative integers unsigned,
// negative ones signed, so every decoder sees the types it sees in the plain reader.
json::Json toJson(dom::element element) {
  switch (element.type()) {
    case dom::element_type::ARRAY: {
      json::Json out = json::Json::array();
      for (const auto value : dom::array(element)) {
        out.push_back(toJson(value));
      }
      return out;
    }
    case dom::element_type::OBJECT: {
      json::Json out = json::Json::object();
      for (const auto field : dom::object(element)) {
        out[std::string(field.key)] = toJson(field.value);  // the last of twins wins, as in nlohmann
      }
      return out;
    }
    case dom::element_type::INT64: {
      const auto value = std::int64_t(element);
      return value >= 0 ? json::Json(static_cast<std::uint64_t>(value)) : json::Json(value);
    }
    case dom::element_type::UINT64:
      return json::Json(std::uint64_t(element));
    case dom::element_type::DOUBLE:
      return json::Json(double(element));
    case dom::element_type::STRING:
      return json::Json(std::string(std::string_view(element)));
    case dom::element_type::BOOL:
      return json::Json(bool(element));
    case dom::element_type::NULL_VALUE:
      break;
  }
  return json::Json(nullptr);
}

// The fields of one object, when their keys ascend strictly (so none is there twice).
class Fields {
 public:
  explicit Fields(dom::object object) {
    fields_.reserve(object.size());
    for (const auto field : object) {
      if (!fields_.empty() && !(fields_.back().key < field.key)) {
        usable_ = false;
        return;
      }
      fields_.push_back(field);
    }
  }
  [[nodiscard]] bool usable() const { return usable_; }
  [[nodiscard]] std::optional<dom::element> find(std::string_view key) const {
    const auto end = fields_.end();
    const auto found =
        std::lower_bound(fields_.begin(), end, key,
                         [](const dom::key_value_pair& field, std::string_view wanted) { return field.key < wanted; });
    if (found == end || found->key != key) {
      return std::nullopt;
    }
    return found->value;
  }

 private:
  std::vector<dom::key_value_pair> fields_;
  bool usable_ = true;
};

// The item's field list read from simdjson's fields, with the plain reader's decoders over
// each value; any failure gives the row back.
class Reader {
 public:
  explicit Reader(const Fields& fields) : fields_(fields) {}

  template <class T>
  void required(std::string_view key, T& out) {
    const auto value = fields_.find(key);
    if (!value) {
      failed_ = true;
      return;
    }
    read(*value, out);
  }
  template <class T>
  void optional(std::string_view key, std::optional<T>& out) {
    const auto value = fields_.find(key);
    if (!value || value->is_null()) {
      out.reset();
      return;
    }
    T decoded{};
    if (read(*value, decoded)) {
      out = std::move(decoded);
    }
  }
  template <class T>
  void defaulted(std::string_view key, T& out) {
    const auto value = fields_.find(key);
    if (value && !value->is_null()) {
      read(*value, out);
    }
  }
  [[nodiscard]] bool failed() const { return failed_; }

 private:
  template <class T>
  bool read(dom::element value, T& out) {
    if (failed_) {
      return false;
    }
    // The commonest values skip the small tree; each matches its decoder exactly.
    if constexpr (std::is_same_v<T, std::string>) {
      if (value.is_string()) {
        out = std::string(std::string_view(value));
        return true;
      }
    } else if constexpr (std::is_same_v<T, bool>) {
      if (value.is_bool()) {
        out = bool(value);
        return true;
      }
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
      if (value.type() == dom::element_type::INT64) {
        out = std::int64_t(value);
        return true;
      }
    } else if constexpr (std::is_same_v<T, double>) {
      if (value.type() == dom::element_type::DOUBLE) {
        out = double(value);
        return true;
      }
    }
    auto decoded = json::Coding<T>::decode(toJson(value), json::Options{});
    if (!decoded) {
      failed_ = true;
      return false;
    }
    out = std::move(*decoded);
    return true;
  }

  const Fields& fields_;
  bool failed_ = false;
};

}  // namespace

std::optional<Document> read(std::string_view text, const std::function<bool(const LibraryItem&)>& admit) {
  if (text.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  dom::parser parser;
  dom::element root;
  if (parser.parse(text.data(), text.size()).get(root) != simdjson::SUCCESS || !root.is_object()) {
    return std::nullopt;
  }
  const Fields top{dom::object(root)};
  const auto items = top.find("items");
  if (!top.usable() || !items || !items->is_array()) {
    return std::nullopt;
  }
  Document document;
  if (const auto next = top.find("nextID")) {
    document.nextID = toJson(*next);
  }
  const auto rows = dom::array(*items);
  document.items.reserve(rows.size());
  for (const auto row : rows) {
    if (!row.is_object()) {
      return std::nullopt;
    }
    const Fields fields{dom::object(row)};
    if (!fields.usable()) {
      return std::nullopt;
    }
    LibraryItem item;
    Reader reader(fields);
    json::libraryItemFields(reader, item);
    if (reader.failed() || !admit(item)) {
      return std::nullopt;
    }
    document.items.push_back(std::move(item));
  }
  return document;
}

}  // namespace korvalen::LibraryFastReader
