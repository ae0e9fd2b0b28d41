#pragma once

#include <iostream>
#include <string>

// Tells the user about a setting that works and is almost certainly a mistake.
inline void warn(const std::string& text) {
    std::cerr << "warning: " << text << std::endl;
}
