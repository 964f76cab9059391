// Gives each file of a directory to a fuzz target, as libFuzzer would: builds for another processor have no fuzz targets.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int, char** arguments) {
    int count = 0;
    for (const auto& seed : std::filesystem::directory_iterator(arguments[1])) {
        std::ifstream file(seed.path(), std::ios_base::binary);
        if (!file) {
            (void)std::printf("%s cannot be read\n", seed.path().c_str());
            return 1;
        }
        const std::vector<char> data{std::istreambuf_iterator<char>(file), {}};
        (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
        ++count;
    }
    (void)std::printf("%d seeds\n", count);
    return count > 0 ? 0 : 1;
}
