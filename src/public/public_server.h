#pragma once

#include <string>

#include "base/descriptor.h"

// Opens the directory of the website, without the right to read it as a file. Throws std::runtime_error.
Descriptor open_website();

// Each serves the configured website as a public site until server_running is cleared. Loops that are stuck in the
// system half a second later are left behind. context is that of the log lines. To be called once, on a thread of the
// server. Throws std::exception with the reason when the server cannot start.
void serve_public_http(const std::string& context);
void serve_public_https(const std::string& context);
