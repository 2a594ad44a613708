// Runs a fuzz target's entry point over saved inputs, without libFuzzer, so the
// corpus and every regression input are checked by the ordinary test build
// (and under the sanitizers when the build has them).
//
//   replay_<name> PATH...    each PATH is an input file or a folder of them
//
// A missing path, or a folder without a single input, is an error: a corpus
// that silently replays nothing would look like a pass.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fs = std::filesystem;

namespace
{

bool readFile(const fs::path& path, std::vector<uint8_t>& bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

bool replayFile(const fs::path& path)
{
    std::vector<uint8_t> bytes;
    if (!readFile(path, bytes))
    {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", path.c_str(), bytes.size());
    // A copy of exactly the input's size, so a sanitizer sees any read past its end.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[std::max<size_t>(bytes.size(), 1)]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), bytes.size());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        std::fprintf(stderr, "usage: %s FILE-OR-FOLDER...\n", argv[0]);
        return 2;
    }
    // Made absolute first: a target may change the working folder when it starts.
    std::vector<fs::path> paths;
    for (int i = 1; i < argc; ++i)
        paths.push_back(fs::absolute(argv[i]));
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);

    size_t replayed = 0;
    bool ok = true;
    for (const fs::path& path : paths)
    {
        std::error_code error;
        if (fs::is_regular_file(path, error))
        {
            ok = replayFile(path) && ok;
            ++replayed;
            continue;
        }
        if (!fs::is_directory(path, error))
        {
            std::fprintf(stderr, "no such input file or folder: %s\n", path.c_str());
            ok = false;
            continue;
        }
        std::vector<fs::path> files;
        for (const fs::directory_entry& entry : fs::directory_iterator(path, error))
            if (entry.is_regular_file())
                files.push_back(entry.path());
        if (files.empty())
        {
            std::fprintf(stderr, "no inputs in %s\n", path.c_str());
            ok = false;
            continue;
        }
        // Sorted, so a failure names the same input on every machine.
        std::sort(files.begin(), files.end());
        for (const fs::path& file : files)
        {
            ok = replayFile(file) && ok;
            ++replayed;
        }
    }
    std::printf("replayed %zu inputs%s\n", replayed, ok ? "" : ", with errors");
    return ok ? 0 : 1;
}
