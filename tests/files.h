#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

inline std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void write_file(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// A new empty directory, removed with all that is in it.
struct TemporaryDirectory {
    std::string path = "/tmp/marlu-test-XXXXXX";
    TemporaryDirectory() { path = std::filesystem::canonical(mkdtemp(path.data())); }
    ~TemporaryDirectory() { std::filesystem::remove_all(path); }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
};

// Certificates and keys that are made by the run itself: NAME.crt with NAME.key, and files that combine them.
struct Certificates : TemporaryDirectory {
    Certificates() {
        const std::string script = "cd " + path + R"( && exec 2>errors
            make() { openssl req -x509 -nodes -subj /CN=$1 -keyout $1.key -out $1.crt -newkey $2 $3 $4; }
            make good ec -pkeyopt ec_paramgen_curve:P-256 && make other ec -pkeyopt ec_paramgen_curve:P-256 &&
            make weak rsa:512 && openssl genpkey -algorithm X25519 -out odd.key &&
            openssl req -new -key good.key -subj /CN=good -out request &&
            openssl x509 -req -in request -signkey good.key -days -1 -out expired.crt &&
            cat good.key good.crt other.crt >chain.pem && cat other.key good.crt >mismatch.pem &&
            cat good.key weak.crt >weak.pem && cat weak.pem weak.crt >weak_chain.pem && cat odd.key good.crt >odd.pem)";
        if (std::system(script.c_str()) != 0) throw std::runtime_error(read_file(path + "/errors"));
    }
};
