// An ordinary main() for a fuzz target: runs it once on every file of the folders (or the
// files) named on the command line, so the test build keeps each target compiling and each
// seed passing without clang or libFuzzer. A broken property traps, which fails the test.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replay(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in)
        return false;
    const std::vector<char> bytes { std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>() };
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            for (const auto& entry : std::filesystem::directory_iterator(path)) {
                if (entry.is_regular_file() && replay(entry.path()))
                    ++count;
            }
        } else if (replay(path)) {
            ++count;
        } else {
            std::fprintf(stderr, "cannot read %s\n", argv[i]);
            return 1;
        }
    }
    std::printf("%d inputs replayed\n", count);
    // A folder without seeds would make this test pass without checking anything.
    return count > 0 ? 0 : 1;
}
