// Runs a fuzz target over the inputs kept in its corpus, without libFuzzer: each file of the
// directories (or each file) given is handed to LLVMFuzzerTestOneInput once. A crash or a
// sanitizer report fails the run; so does a corpus without a single input.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    size_t inputs = 0;
    auto run = [&](const std::filesystem::path &p) {
        std::ifstream in(p, std::ios::binary);
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        ++inputs;
    };
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto &e : std::filesystem::directory_iterator(argv[i]))
                if (e.is_regular_file()) run(e.path());
        } else {
            run(argv[i]);
        }
    }
    std::printf("%zu inputs\n", inputs);
    return inputs ? 0 : 1;
}
