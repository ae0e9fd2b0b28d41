#pragma once

#include <mutex>
#include <string>
#include <string_view>

// The file that holds a line for each answer of a public site. Callable from any thread.
class AccessLog {
  public:
    // Opens the file at name for appending, or makes it with mode 0640. Throws std::runtime_error when that fails or
    // the file is not a regular one.
    explicit AccessLog(const std::string& name);
    ~AccessLog();
    AccessLog(const AccessLog&) = delete;
    AccessLog& operator=(const AccessLog&) = delete;

    // Appends whole lines. While the disk is full lines are lost, but none is torn: the rest of a line that was begun
    // comes first as soon as there is room. The event logs say when this begins and when it is over.
    void append(std::string_view lines);

    // Opens the file anew when its name leads to another one by now, or to none.
    void follow_name();

  private:
    // Writes bytes, which may continue a line that was begun. Returns 0 or the error. Keeps the rest of a begun line.
    int write_out(std::string_view bytes, bool is_line_begun);

    const std::string file_name;
    std::mutex lock;  // guards all below
    int descriptor;
    std::string rest_of_line;  // that could not be written
    bool is_failing = false;
    bool has_lost_name = false;  // a new file could not be opened, the old one goes on
};

// Opened by the configuration loader; null without an access log. Never destroyed.
inline AccessLog* access_log = nullptr;
