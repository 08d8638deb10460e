#include "core/PieceCache.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <set>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t SIZE = 96; // a cache of this test's own
using Pieces = PieceCache<SIZE, 4, 8>;

std::vector<void*> TakeMany(std::size_t uMany)
{
    std::vector<void*> pieces;
    for (std::size_t u = 0; u < uMany; ++u)
        pieces.push_back(Pieces::Take());
    return pieces;
}

void GiveAll(const std::vector<void*>& pieces)
{
    std::for_each(pieces.begin(), pieces.end(), &Pieces::Give);
}

TEST(PieceCache, WhatOneThreadGivesBackAnotherUses)
{
    constexpr std::size_t MANY = 40;
    const std::vector<void*> first = TakeMany(MANY);
    ASSERT_EQ(std::set<void*>(first.begin(), first.end()).size(), MANY);
    std::thread([&] { GiveAll(first); }).join();
    const std::vector<void*> second = TakeMany(MANY);
    const std::set<void*> distinct(second.begin(), second.end());
    EXPECT_EQ(distinct.size(), MANY);
#if !defined(TARN_PLAIN_PIECES)
    // Those in the depot; the thread has given the rest to the heap at its end.
    const auto nAgain =
        std::count_if(first.begin(), first.end(), [&](void* p) { return distinct.count(p) != 0; });
    EXPECT_GE(nAgain, 4 * 8);
#endif
    GiveAll(second);
}

TEST(PieceCache, ThreadsThatComeAndGoShareNoPiece)
{
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 200;
    std::vector<std::thread> threads;
    std::vector<int> torn(THREADS, 0);
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([i, &torn] {
            for (int iRound = 0; iRound < ROUNDS; ++iRound)
            {
                std::vector<void*> pieces = TakeMany(11);
                for (void* pPiece : pieces)
                    std::fill_n(static_cast<int*>(pPiece), SIZE / sizeof(int), i);
                std::thread([&] {
                    for (void* pPiece : pieces)
                    {
                        const auto* pInts = static_cast<int*>(pPiece);
                        if (std::any_of(pInts, pInts + SIZE / sizeof(int), [i](int n) { return n != i; }))
                            ++torn[static_cast<std::size_t>(i)];
                    }
                    GiveAll(pieces);
                }).join();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(torn, std::vector<int>(THREADS, 0));
}

#if !defined(TARN_PLAIN_PIECES) && !defined(__SANITIZE_THREAD__)
TEST(PieceCache, AThreadThatOnlyTakesLeavesNothingBehind)
{
    constexpr std::size_t BYTES = 4096;
    constexpr int THREADS = 500;
    using Large = PieceCache<BYTES, 4, 8>;
    const std::size_t uBefore = mallinfo2().uordblks;
    for (int i = 0; i < THREADS; ++i)
    {
        void* pPiece = nullptr;
        std::thread([&] { pPiece = Large::Take(); }).join();
        Large::Give(pPiece);
    }
    EXPECT_LT(mallinfo2().uordblks, uBefore + THREADS * BYTES / 4);
}
#endif

} // namespace
