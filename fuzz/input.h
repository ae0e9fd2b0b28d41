#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

// What each target defines: takes one input through the code that reads such bytes in the daemon.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// The bundled site, as website_path has to name it.
inline const std::string site = std::filesystem::canonical(SITE);

// Ends the run when what always holds does not. Unlike assert it is there in every build.
inline void require(bool holds) {
    if (!holds) std::abort();
}
