#include "support/Threads.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

std::set<int> Threads()
{
    // A sanitizer has a thread of its own, which starts with the process's first.
    [[maybe_unused]] static const bool bFirst = (std::thread([] {}).join(), true);
    std::set<int> threads;
    for (const auto& entry : fs::directory_iterator("/proc/self/task"))
        threads.insert(std::stoi(entry.path().filename()));
    return threads;
}

int DescriptorCount()
{
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

bool ThreadBlocks(int iThread, int iSignal)
{
    std::ifstream status("/proc/self/task/" + std::to_string(iThread) + "/status");
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
