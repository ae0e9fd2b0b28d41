#pragma once

#include <string>

#include "base/descriptor.h"

// Opens the file or directory at relative_path below the open directory site, for reading and without waiting. Links
// may lead anywhere within the site. Nothing outside of the site is opened, however the path is written: what is
// checked is what is opened. relative_path has no leading slash. Returns an empty descriptor when there is no such
// file, or it may not be read. Callable from any thread. Throws std::system_error when descriptors or memory lack.
Descriptor open_in_site(int site, const std::string& relative_path);
