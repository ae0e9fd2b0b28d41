#pragma once

#include <string>

// Returns the content type for the file at path, chosen by what follows the last "." in it. Looks at the text alone.
// Callable from any thread. Throws nothing but std::bad_alloc.
std::string MimeTypes(const std::string& path);
