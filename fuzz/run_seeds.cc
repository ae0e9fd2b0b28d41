// Takes a fuzz target through the files that are named, where libFuzzer does not do it.
#include <fstream>
#include <iterator>

#include "input.h"

int main(int count, char** names) {
    for (int number = 1; number < count; ++number) {
        std::ifstream file(names[number], std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    }
    return count > 1 ? 0 : 1;
}
