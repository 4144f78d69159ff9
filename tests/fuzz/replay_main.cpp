// Runs a fuzz target once on each input file named on the command line (a folder stands for
// the files in it), for builds without libFuzzer: the committed regression inputs are replayed
// by every build, with the sanitizers of that build.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char** argv)
{
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path argument(argv[i]);
        if (fs::is_directory(argument)) {
            for (const fs::directory_entry& entry : fs::directory_iterator(argument)) {
                if (entry.is_regular_file()) {
                    inputs.push_back(entry.path());
                }
            }
        } else {
            inputs.push_back(argument);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        fprintf(stderr, "no inputs to replay\n");
        return 1;
    }
    for (const fs::path& input : inputs) {
        std::ifstream in(input, std::ios::binary);
        if (!in) {
            fprintf(stderr, "cannot read %s\n", input.string().c_str());
            return 1;
        }
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                         std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
