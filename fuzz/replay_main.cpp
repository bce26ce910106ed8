// Replays inputs through a fuzz target without the fuzzing engine, so that
// the targets build with any compiler and their seed corpora run as tests.
//
//   <name>_replay FILE_OR_DIRECTORY...
//
// Each file (directories: each regular file in them, in name order) is read
// and passed to LLVMFuzzerTestOneInput once. Arguments starting with '-'
// are ignored, so a fuzzing command line can be reused.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);

    // Every input is read before the first run: a target may change the
    // working directory.
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.empty() || arg[0] == '-') continue;
        std::error_code ec;
        if (std::filesystem::is_directory(arg, ec)) {
            std::vector<std::string> found;
            for (const auto& entry : std::filesystem::directory_iterator(arg, ec))
                if (entry.is_regular_file(ec)) found.push_back(entry.path().string());
            std::sort(found.begin(), found.end());
            files.insert(files.end(), found.begin(), found.end());
        } else {
            files.push_back(arg);
        }
    }
    std::vector<std::vector<uint8_t>> inputs;
    for (const std::string& f : files) {
        std::ifstream in(f, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", f.c_str());
            return 2;
        }
        inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs\n");
        return 2;
    }
    for (size_t i = 0; i < inputs.size(); ++i) {
        const std::vector<uint8_t>& in = inputs[i];
        // A copy of exactly the input's size, as the engine passes it (never
        // a null pointer, even for an empty input).
        std::vector<uint8_t> copy(in);
        copy.reserve(1);
        LLVMFuzzerTestOneInput(copy.data(), copy.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
