// Replays a fuzz target without a fuzzer: the files of the directory given, if it is there, the target's seeds, every
// prefix of them, and a fixed number of mutations that are the same in every run.
#include "fuzz.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <system_error>

namespace {

constexpr unsigned MUTATIONS_PER_SEED = 400;
std::size_t inputs;

// From an allocation of the input's very size, so that a sanitizer sees a read past its end.
void run(const fuzz::input &input)
{
    const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[input.size()]);
    std::copy(input.begin(), input.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), input.size());
    ++inputs;
}

void run_files(const std::filesystem::path &folder)
{
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(folder, error)) {
        std::ifstream file(entry.path(), std::ios::binary);
        run(fuzz::input(std::istreambuf_iterator<char>(file), {}));
    }
}

fuzz::input mutate(fuzz::input input, std::mt19937 &random)
{
    const auto below = [&](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    };
    for (std::size_t changes = 1 + below(4); changes > 0 && !input.empty(); --changes) {
        const std::size_t at = below(input.size());
        switch (below(5)) {
        case 0:
            input[at] = static_cast<std::uint8_t>(below(256));
            break;
        case 1:
            input[at] = static_cast<std::uint8_t>(input[at] ^ 1u << below(8));
            break;
        case 2:
            input.resize(at);
            break;
        case 3:
            input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), below(32),
                         static_cast<std::uint8_t>(below(256)));
            break;
        default:
            input[at] = below(2) == 0 ? 0x00 : 0xFF;
            break;
        }
    }
    return input;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1)
        run_files(argv[1]);
    std::mt19937 random(20240229);
    for (const fuzz::input &seed : fuzz::seeds()) {
        for (std::size_t length = 0; length <= seed.size(); ++length)
            run(fuzz::input(seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(length)));
        for (unsigned i = 0; i < MUTATIONS_PER_SEED; ++i)
            run(mutate(seed, random));
    }
    std::printf("%zu inputs\n", inputs);
    return inputs > MUTATIONS_PER_SEED ? 0 : 1;              // a target without seeds would prove nothing
}
