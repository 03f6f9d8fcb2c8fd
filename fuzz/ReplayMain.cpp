// Feeds every file of the named folders to a fuzz target, once. What the target finds wrong ends the program.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::printf("%s\n", entry.path().c_str());
            std::fflush(stdout); // The last line names the input that ended the program.
            std::ifstream file(entry.path(), std::ios_base::binary);
            const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++count;
        }
    }
    if (count == 0) {
        std::fprintf(stderr, "There is nothing to replay\n");
        return 1;
    }
    return 0;
}
