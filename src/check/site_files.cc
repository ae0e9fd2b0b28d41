#include "check/site_files.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <filesystem>
#include <set>

#include "config/config_file.h"
#include "config/server_config.h"
#include "http/file_cache.h"
#include "http/site_path.h"

namespace {

namespace fs = std::filesystem;

class Search {
  public:
    Site site;

    // relative is the path of a directory below the website, or "" for the website itself.
    void look_through(const fs::path& relative) {
        const fs::path directory = website_path / relative;
        std::error_code error;
        if (!directories_seen.insert(fs::canonical(directory, error).string()).second) return;  // links in a circle
        fs::directory_iterator entries(directory, error);
        if (error) {
            leave_out(relative, error.message());
            return;
        }
        std::set<fs::path> names;  // in a fixed order
        for (const fs::directory_entry& entry : entries) names.insert(entry.path().filename());
        for (const fs::path& name : names) look_at(relative / name);
    }

  private:
    void look_at(const fs::path& relative) {
        std::error_code error;
        const fs::path path = website_path / relative;
        const fs::file_status status = fs::status(path, error);
        if (relative.string().find_first_of(" ?") != std::string::npos) {
            leave_out(relative, "a name with a blank or \"?\" cannot be requested");
        } else if (!fs::exists(status)) {
            leave_out(relative, error.message());
        } else if (!is_path_allowed(relative.string())) {
            leave_out(relative, "leads out of the website directory (403)");
        } else if (fs::is_directory(status)) {
            look_through(relative);
        } else if (!fs::is_regular_file(status)) {
            leave_out(relative, "not a regular file");
        } else {
            take(relative);
        }
    }

    void take(const fs::path& relative) {
        const std::string entry = relative.string();
        const std::string name = canonical_name(entry);
        std::error_code error;
        const std::uintmax_t size = fs::file_size(name, error);
        if (access(name.c_str(), R_OK) != 0) {
            leave_out(relative, "cannot be read (404)");
        } else if (size == 0) {
            leave_out(relative, "empty (404 over HTTPS)");
        } else if (files_seen.insert(name).second) {
            if (size > INT_MAX) leave_out(relative, "too large (HTTPS sends the head only)");
            const bool is_listable = trim(entry) == entry && entry.find('\n') == std::string::npos;
            site.files.push_back({entry, name, size, is_listable});
        }
    }

    void leave_out(const fs::path& relative, const std::string& reason) {
        site.unserved.push_back((relative.empty() ? "." : relative.string()) + ": " + reason);
    }

    const fs::path website_path = server_config.website_path;
    std::set<std::string> directories_seen;
    std::set<std::string> files_seen;
};

}  // namespace

Site find_site_files() {
    Search search;
    search.look_through("");
    const auto by_entry = [](const SiteFile& a, const SiteFile& b) { return a.entry < b.entry; };
    std::sort(search.site.files.begin(), search.site.files.end(), by_entry);
    return search.site;
}

std::vector<SiteFile> files_to_ignore(const std::vector<SiteFile>& files) {
    // A file that no list can hold keeps its slot, otherwise the largest one does.
    const auto goes_before = [](const SiteFile& a, const SiteFile& b) {
        return a.is_listable != b.is_listable ? !a.is_listable : a.size > b.size;
    };
    std::array<const SiteFile*, cache_slot_count> kept{};
    for (const SiteFile& file : files) {
        const SiteFile*& keeper = kept[cache_slot(file.canonical_name)];
        if (keeper == nullptr || goes_before(file, *keeper)) keeper = &file;
    }
    std::uint64_t total = 0;
    for (const SiteFile* const file : kept) total += file != nullptr ? file->size : 0;
    while (total > FileCache::capacity) {
        const auto by_size = [](const SiteFile* a, const SiteFile* b) {
            return (a != nullptr ? a->size : 0) < (b != nullptr ? b->size : 0);
        };
        const SiteFile*& largest = *std::max_element(kept.begin(), kept.end(), by_size);
        total -= largest->size;
        largest = nullptr;
    }
    std::vector<SiteFile> ignored;
    for (const SiteFile& file : files) {
        if (kept[cache_slot(file.canonical_name)] != &file) ignored.push_back(file);
    }
    return ignored;
}
