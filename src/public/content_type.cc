#include "public/content_type.h"

#include <algorithm>

#include "http/mime_types.h"
#include "public/request.h"

namespace {

// What the exact servers do not know.
constexpr struct {
    std::string_view extension;
    std::string_view type;
} further_types[] = {
    {"apng", "image/apng"},
    {"atom", "application/atom+xml"},
    {"avif", "image/avif"},
    {"cur", "image/vnd.microsoft.icon"},
    {"epub", "application/epub+zip"},
    {"flac", "audio/flac"},
    {"heic", "image/heic"},
    {"htm", "text/html"},
    {"ics", "text/calendar"},
    {"jsonld", "application/ld+json"},
    {"jxl", "image/jxl"},
    {"m4a", "audio/mp4"},
    {"m4v", "video/mp4"},
    {"map", "application/json"},
    {"md", "text/markdown"},
    {"mjs", "application/javascript"},
    {"mkv", "video/x-matroska"},
    {"mpeg", "video/mpeg"},
    {"mpg", "video/mpeg"},
    {"oga", "audio/ogg"},
    {"ogv", "video/ogg"},
    {"opus", "audio/ogg"},
    {"rss", "application/rss+xml"},
    {"rtf", "application/rtf"},
    {"ttc", "font/collection"},
    {"vcf", "text/vcard"},
    {"vtt", "text/vtt"},
    {"weba", "audio/webm"},
    {"webmanifest", "application/manifest+json"},
    {"xhtml", "application/xhtml+xml"},
    {"xz", "application/x-xz"},
    {"zst", "application/zstd"},
};

constexpr std::string_view compressible_types[] = {
    "application/javascript",
    "application/json",
    "application/vnd.ms-fontobject",
    "application/wasm",
    "application/xml",
    "font/otf",
    "font/ttf",
    "image/bmp",
    "image/x-icon",
};

std::string find_type(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    const std::string_view extension = dot == name.npos ? "" : name.substr(dot + 1);
    for (const auto& row : further_types) {
        if (equals_ignoring_case(extension, row.extension)) return std::string(row.type);
    }
    return MimeTypes(std::string(name));
}

}  // namespace

ContentType content_type_of(std::string_view name) {
    ContentType type{find_type(name), false};
    const bool is_text = type.text.starts_with("text/");
    type.is_compressible = is_text || type.text.ends_with("+xml") || type.text.ends_with("+json") ||
                           std::find(std::begin(compressible_types), std::end(compressible_types), type.text) !=
                               std::end(compressible_types);
    if (is_text) type.text += "; charset=utf-8";
    return type;
}
