#pragma once

#include <string>
#include <string_view>

struct ContentType {
    std::string text;      // the value of Content-Type
    bool is_compressible;  // compressing such files makes them smaller
};

// Chooses the content type by what follows the last "." in name, which is that of a file, without directories. Callable
// from any thread. Throws nothing but std::bad_alloc.
ContentType content_type_of(std::string_view name);
