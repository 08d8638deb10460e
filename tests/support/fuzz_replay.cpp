// The main of a fuzz target that is built without libFuzzer: runs it on the files of the folders that it is given.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t uLength);

int main(int argc, char** argv)
{
    int nFiles = 0;
    for (int i = 1; i < argc; ++i)
    {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
        {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string strBytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(strBytes.data()), strBytes.size());
            ++nFiles;
        }
    }
    std::printf("%d files\n", nFiles);
    return nFiles > 0 ? 0 : 1;
}
