// Runs a fuzz target's entry function once over every file named on the
// command line, or found (recursively) in a directory named there: the seed
// corpus replayed as an ordinary test, without libFuzzer. A crash or a
// sanitizer report fails the run; so does finding no input at all.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool replayFile(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path argument(argv[i]);
        if (fs::is_directory(argument)) {
            for (const auto &entry : fs::recursive_directory_iterator(argument))
                if (entry.is_regular_file())
                    inputs.push_back(entry.path());
        } else {
            inputs.push_back(argument);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto &input : inputs)
        if (!replayFile(input))
            return 1;
    std::printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
