// corpus_main.cpp - runs a fuzz target over the files of a corpus, where no fuzzer is linked.
//
// The corpus holds what a fuzzer once found worth keeping, so every build walks the same ways without it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace
{
void run_file(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
    (void)std::fprintf(stderr, "%s, %zu bytes\n", path.filename().c_str(), bytes.size());
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
}
} // namespace

// Arguments: folders or files. Status 0 when at least one input ran; a target that finds something ends the program.
int main(int count, char **arguments)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < count; ++i) {
        if (!std::filesystem::is_directory(arguments[i])) {
            files.emplace_back(arguments[i]);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(arguments[i]))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());                 // the order of a folder is not the same everywhere
    if (std::freopen("/dev/null", "w", stdout) == nullptr) // the trie traces each of its steps there
        return 1;
    for (const auto &path : files)
        run_file(path);
    return files.empty() ? 1 : 0;
}
