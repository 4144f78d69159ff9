// Runs a fuzz target once on each input file named on the command line (a folder stands for its
// files), for builds without libFuzzer: every build replays the committed inputs under its sanitizers.

#include <set>

#include "tests/support/TestSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    std::set<std::filesystem::path> inputs;  // in order, whatever the folder's
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i]))
            inputs.insert(argv[i]);
        else
            inputs.insert(std::filesystem::directory_iterator(argv[i]),
                          std::filesystem::directory_iterator());
    }
    for (const std::filesystem::path& input : inputs) {
        if (!is_regular_file(input))
            return fprintf(stderr, "cannot read %s\n", input.string().c_str()), 1;
        const std::string bytes = test_support::ReadFile(input.string());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
