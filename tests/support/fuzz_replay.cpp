// Feeds every file of the corpus directories named on the command line, in name order, to a
// fuzz target (LLVMFuzzerTestOneInput), so that the committed corpora run in every build. A
// target that finds a fault aborts, and so fails the run. Exits 1 when no input was found.
#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    size_t inputs = 0;
    for (int a = 1; a < argc; ++a) {
        std::vector<std::string> names;
        if (DIR *d = opendir(argv[a])) {
            while (dirent *e = readdir(d))
                if (e->d_name[0] != '.') names.emplace_back(e->d_name);
            closedir(d);
        } else {
            std::fprintf(stderr, "%s: cannot read %s\n", argv[0], argv[a]);
            return 1;
        }
        std::sort(names.begin(), names.end());
        for (const std::string &n : names) {
            std::ifstream f(std::string(argv[a]) + "/" + n, std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)),
                                       std::istreambuf_iterator<char>());
            static const uint8_t none = 0; // an empty input still comes at an address
            LLVMFuzzerTestOneInput(bytes.empty() ? &none : bytes.data(), bytes.size());
            ++inputs;
        }
    }
    std::printf("%zu inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 1;
}
