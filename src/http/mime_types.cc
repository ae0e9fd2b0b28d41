#include "http/mime_types.h"

#include <cctype>
#include <unordered_map>

namespace {

using Table = std::unordered_map<std::string, std::string>;

const Table& content_types() {
    // Never destroyed, see config/server_config.h. Intended: "htm" is not here.
    static const Table& table = *new Table{
        {"html", "text/html"},
        {"css", "text/css"},
        {"js", "application/javascript"},
        {"txt", "text/plain"},
        {"csv", "text/csv"},
        {"xml", "application/xml"},
        {"json", "application/json"},
        {"svg", "image/svg+xml"},
        {"png", "image/png"},
        {"jpg", "image/jpeg"},
        {"jpeg", "image/jpeg"},
        {"gif", "image/gif"},
        {"ico", "image/x-icon"},
        {"webp", "image/webp"},
        {"bmp", "image/bmp"},
        {"tif", "image/tiff"},
        {"tiff", "image/tiff"},
        {"woff", "font/woff"},
        {"woff2", "font/woff2"},
        {"ttf", "font/ttf"},
        {"otf", "font/otf"},
        {"eot", "application/vnd.ms-fontobject"},
        {"zip", "application/zip"},
        {"tar", "application/x-tar"},
        {"gz", "application/gzip"},
        {"bz2", "application/x-bzip2"},
        {"7z", "application/x-7z-compressed"},
        {"pdf", "application/pdf"},
        {"doc", "application/msword"},
        {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        {"xls", "application/vnd.ms-excel"},
        {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
        {"ppt", "application/vnd.ms-powerpoint"},
        {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
        {"odt", "application/vnd.oasis.opendocument.text"},
        {"mp4", "video/mp4"},
        {"webm", "video/webm"},
        {"avi", "video/x-msvideo"},
        {"mov", "video/quicktime"},
        {"mp3", "audio/mpeg"},
        {"wav", "audio/wav"},
        {"ogg", "audio/ogg"},
        {"aac", "audio/aac"},
        {"wasm", "application/wasm"},
    };
    return table;
}

}  // namespace

std::string MimeTypes(const std::string& path) {
    static constexpr char default_type[] = "application/octet-stream";
    // Intended: the last dot of the whole path, even when it lies in the name of a directory.
    const std::size_t dot = path.rfind('.');
    if (dot == std::string::npos) return default_type;
    std::string extension = path.substr(dot + 1);
    for (char& character : extension) {
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    const auto found = content_types().find(extension);
    return found == content_types().end() ? default_type : found->second;
}
