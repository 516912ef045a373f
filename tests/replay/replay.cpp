// Runs a fuzz target without a fuzzer: every file of its corpus, the argument, then 2,000 mutations of them.
#include "replay/seeds.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int*, char***) { return 0; }

namespace {

using input = std::vector<uint8_t>;

void run(const input& bytes)
{
    const std::unique_ptr<uint8_t[]> block{new uint8_t[bytes.size()]}; // of its own size: a byte too far is seen
    std::copy(bytes.begin(), bytes.end(), block.get());
    LLVMFuzzerTestOneInput(block.get(), bytes.size());
}

// One change: a byte, a bit, bytes taken out, or taken from another input.
void mutate(input& bytes, const input& other, std::mt19937& dice)
{
    const size_t n = 1 + dice() % (dice() % 8 == 0 ? 300 : 8), at = bytes.empty() ? 0 : dice() % bytes.size();
    const auto here = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    const auto rest = [n](const input& of, size_t from) {
        return static_cast<std::ptrdiff_t>(std::min(n, of.size() - from));
    };
    switch (bytes.empty() ? 0 : dice() % 5) {
    case 0: bytes.insert(here, other.begin(), other.begin() + rest(other, 0)); break;
    case 1: bytes[at] = static_cast<uint8_t>((dice() % 2) * 0x80 - dice() % 3); break; // the edges of a byte
    case 2: bytes[at] ^= static_cast<uint8_t>(1u << dice() % 8); break;
    case 3: bytes.erase(here, here + rest(bytes, at)); break;
    default: bytes[at] = static_cast<uint8_t>(dice()); break;
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<input> corpus;
    for (const auto& file : std::filesystem::directory_iterator(argv[argc - 1])) {
        std::ifstream bytes(file.path(), std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(bytes), std::istreambuf_iterator<char>());
    }
    if (corpus.empty() || LLVMFuzzerInitialize(&argc, &argv) != 0) { return 1; }
    std::sort(corpus.begin(), corpus.end()); // a seed means the same everywhere
    running_seed = "no seed: the corpus";
    std::for_each(corpus.begin(), corpus.end(), run);
    for_seeds("RVK_REPLAY", 2000, [&corpus](uint64_t seed) {
        std::mt19937 dice(static_cast<uint32_t>(seed));
        input bytes = corpus[dice() % corpus.size()];
        for (size_t n = 1 + dice() % 5; n > 0; --n) { mutate(bytes, corpus[dice() % corpus.size()], dice); }
        run(bytes);
        return true;
    });
    return 0;
}
