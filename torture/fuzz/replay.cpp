// Replays inputs: replay FILE|DIRECTORY... Where the fuzzer itself is not linked in, this is main().
#include "fuzz.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

int replayed = 0;

void Replay(const fs::path &file)
{
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    const std::string input = text.str();
    std::fprintf(stderr, "%s\n", file.c_str()); // the last one is the one that failed
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(input.data()), input.size());
    ++replayed;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            Replay(argv[i]);
            continue;
        }
        for (const auto &entry : fs::directory_iterator(argv[i]))
            Replay(entry.path());
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
