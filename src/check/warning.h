#pragma once

#include <iostream>
#include <string>

// Tells the user about a setting that the daemon accepts and nobody wants.
inline void warn(const std::string& text) {
    std::cerr << "warning: " << text << std::endl;
}
