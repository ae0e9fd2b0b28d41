#pragma once

#include "config/config_file.h"

// Reads the keys that only a public site has into server_config: access_log, headers_file, https_only and
// trusted_proxy. For the configuration loader. Throws std::runtime_error with the reason when it refuses a value.
void read_public_settings(const Settings& settings);
