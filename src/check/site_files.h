#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A file below the website directory, as the daemon would serve it over HTTPS.
struct SiteFile {
    std::string entry;           // its path relative to the website directory
    std::string canonical_name;  // its name in the cache
    std::uint64_t size;          // bytes
    bool is_listable;            // false when a line of a list cannot hold entry
};

struct Site {
    std::vector<SiteFile> files;        // sorted by entry; a file that several links lead to occurs once
    std::vector<std::string> unserved;  // "entry: reason" for what HTTPS cannot serve
};

// Searches the website_path of server_config and the directories that links in it lead to.
Site find_site_files();

// Returns the files that a cache-ignore list must hold so that every file is served with its own bytes: in each slot
// all but one, the largest or one that is not listable; and while those that are left do not fit into the cache
// together, the largest of them. In the order of files.
std::vector<SiteFile> files_to_ignore(const std::vector<SiteFile>& files);
