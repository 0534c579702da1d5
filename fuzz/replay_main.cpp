// Replays inputs without the fuzzer: files, or directories of files.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/op_stream.h"

namespace {

bool Replay(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    RunOpStream(reinterpret_cast<const u8 *>(bytes.data()), bytes.size());
    return true;
}

} // namespace

int main(int count, char **arguments)
{
    unsigned replayed = 0;
    for (int i = 1; i < count; ++i) {
        if (!std::filesystem::is_directory(arguments[i])) {
            replayed += Replay(arguments[i]);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(arguments[i])) {
            replayed += Replay(entry.path());
        }
    }
    printf("%u inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
