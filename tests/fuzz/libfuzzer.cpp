// Start of a libFuzzer program: puts the target's own seeds into the first corpus directory of the command line.
#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    for (int i = 1; i < *argc; ++i) {
        const std::filesystem::path corpus = (*argv)[i];
        std::error_code error;
        if ((*argv)[i][0] == '-' || !std::filesystem::is_directory(corpus, error))
            continue;
        std::size_t number = 0;
        for (const fuzz::input &seed : fuzz::seeds()) {
            std::ofstream out(corpus / ("seed-" + std::to_string(number++)), std::ios::binary);
            out.write(reinterpret_cast<const char *>(seed.data()), static_cast<std::streamsize>(seed.size()));
        }
        break;
    }
    return 0;
}
