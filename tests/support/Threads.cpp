#include "support/Threads.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

int EntryCount(const char* pszFolder)
{
    return static_cast<int>(std::distance(fs::directory_iterator(pszFolder), fs::directory_iterator()));
}

} // namespace

int ThreadCount()
{
    return EntryCount("/proc/self/task");
}

int DescriptorCount()
{
    return EntryCount("/proc/self/fd");
}

bool NewestThreadBlocks(int iSignal)
{
    int iNewest = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/task"))
        iNewest = std::max(iNewest, std::stoi(entry.path().filename()));
    std::ifstream status("/proc/self/task/" + std::to_string(iNewest) + "/status");
    for (std::string strLine; std::getline(status, strLine);)
    {
        if (strLine.rfind("SigBlk:", 0) == 0)
            return ((std::stoull(strLine.substr(7), nullptr, 16) >> (iSignal - 1)) & 1U) != 0;
    }
    return false;
}

void RunTogether(int iThreads, const std::function<void(int)>& fn)
{
    std::atomic<bool> bGo{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < iThreads; ++i)
    {
        threads.emplace_back([&, i] {
            while (!bGo)
                std::this_thread::yield();
            fn(i);
        });
    }
    bGo = true;
    for (auto& thread : threads)
        thread.join();
}
