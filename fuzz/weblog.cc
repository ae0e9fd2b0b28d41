// A log, which is mostly what clients wrote, on its way into lines. Its first byte says how it is cut.
#include <algorithm>

#include "input.h"
#include "weblog/log_reader.h"

namespace {

std::string lines_of(std::string_view log, std::size_t piece, bool is_slow) {
    LogReader reader(site);
    std::string lines;
    for (; log.size() > piece; log.remove_prefix(piece)) {
        reader.read(log.substr(0, piece), lines);
        if (is_slow) reader.tick(lines);
    }
    reader.read(log, lines);
    reader.finish(lines);
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view log(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::size_t piece = data[0] + 1U;
    std::string lines = lines_of(log, log.size(), false);
    require(lines_of(log, piece, false) == lines);
    lines += lines_of(log, piece, true);
    for (std::string_view rest = lines; !rest.empty(); rest.remove_prefix(rest.find('\n') + 1)) {
        require(rest.find('\n') <= 4095);
        const std::string_view line = rest.substr(0, rest.find('\n'));
        require(std::count(line.begin(), line.end(), '"') == 6 && line.ends_with('"'));
        require(std::all_of(line.begin(), line.end(), [](char byte) { return byte >= ' ' && byte <= '~'; }));
    }
    return 0;
}
