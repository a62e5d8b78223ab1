// What a web wallpaper's page may reach. A local page is served from a scheme of our own,
// "korvalen-web://ITEM/...", whose host is the item it shows: each page sees its own
// item's folder and nothing else, so an address is read as a path inside that folder only
// when no step of it can lead out (no "..", no encoded slash, no other item). Without the
// network, every request that leaves the page's own origin is refused.
//
// Pure text decisions; the web-view program applies them.
#pragma once

#include <expected>
#include <string>
#include <string_view>

namespace korvalen::WebSandbox {

inline constexpr std::string_view scheme = "korvalen-web";

// "korvalen-web://ITEM/PAGE", each step of `page` percent-encoded as needed.
std::string pageAddress(std::string_view item, std::string_view page);
// "korvalen-web://ITEM": the origin a page of that item has.
std::string originOf(std::string_view item);

// The path inside the item's folder that `address` names, for a page of `item`: decoded,
// without query or fragment, "index.html" for a folder. The error says why nothing is served.
[[nodiscard]] std::expected<std::string, std::string> fileFor(std::string_view address, std::string_view item);

// Whether a page of `item` may load `address` (a navigation or anything it asks for).
[[nodiscard]] bool allows(std::string_view address, std::string_view item, bool allowNetwork);

// The content security policy every local page runs under when it may not reach the
// network: only its own origin and inline, data and blob content.
std::string contentSecurityPolicy(std::string_view item);

// The media type a file is served with, by its extension ("application/octet-stream" else).
std::string_view mediaTypeOf(std::string_view file);

}  // namespace korvalen::WebSandbox
