#ifndef TARN_CORE_PIECECACHE_H
#define TARN_CORE_PIECECACHE_H

#include <array>
#include <cstddef>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_PLAIN_PIECES
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define TARN_PLAIN_PIECES
#endif

/// Memory of one size for what one thread makes and another one frees, with every message. malloc(3) keeps what a thread
/// has freed for that thread, so that it always goes the long way here: the maker finds nothing, the other one has too much.
/// This keeps up to two magazines of pieces for each thread and hands whole ones over through a depot.
/// @tparam MAGAZINE  pieces in a magazine
/// @tparam DEPOT     magazines in the depot; what does not fit goes back to the heap
/// With the address sanitizer each piece is the heap's, so that it sees who uses one too long.
template <std::size_t BYTES, std::size_t MAGAZINE = 32, std::size_t DEPOT = 64>
class PieceCache
{
public:
    /// @return BYTES bytes, aligned as operator new's; null without memory
    static void* Take() noexcept
    {
#if !defined(TARN_PLAIN_PIECES)
        Local& local = t_Local;
        if (local.current.pFirst == nullptr && !local.bEnded)
        {
            if (local.other.pFirst == nullptr)
            {
                GiveBackAtEnd(); // also a thread that only takes
                local.other = TakeFull();
            }
            std::swap(local.current, local.other);
        }
        if (Piece* pPiece = local.current.pFirst)
        {
            local.current.pFirst = pPiece->pNext;
            --local.current.uPieces;
            return pPiece;
        }
#endif
        return ::operator new(BYTES, std::nothrow);
    }

    /// Takes a piece back.
    static void Give(void* pMemory) noexcept
    {
#if !defined(TARN_PLAIN_PIECES)
        Local& local = t_Local;
        if (!local.bEnded)
        {
            GiveBackAtEnd();
            if (local.current.uPieces == MAGAZINE)
            {
                if (local.other.pFirst != nullptr)
                    GiveFull(local.other);
                local.other = std::exchange(local.current, {});
            }
            local.current.pFirst = new (pMemory) Piece{local.current.pFirst};
            ++local.current.uPieces;
            return;
        }
#endif
        ::operator delete(pMemory);
    }

private:
    struct Piece
    {
        Piece* pNext;
    };
    static_assert(BYTES >= sizeof(Piece));

    struct Magazine
    {
        Piece* pFirst = nullptr;
        std::size_t uPieces = 0;
    };

    // Touched by its thread only. Without destructor, so that it is there for whatever comes last on the thread.
    struct Local
    {
        Magazine current;
        Magazine other; // full or empty
        bool bEnded = false;
    };

    struct Ending
    {
        ~Ending()
        {
            Local& local = t_Local;
            local.bEnded = true;
            Free(local.current);
            Free(local.other);
        }
    };

    static void GiveBackAtEnd()
    {
        static thread_local const Ending ending;
        static_cast<void>(ending);
    }

    struct Depot
    {
        std::mutex mutex; // a leaf
        std::array<Magazine, DEPOT> full;
        std::size_t uFull = 0;
    };

    static Magazine TakeFull()
    {
        Depot& depot = s_Depot;
        const std::lock_guard<std::mutex> guard(depot.mutex);
        return depot.uFull != 0 ? depot.full[--depot.uFull] : Magazine{};
    }

    static void GiveFull(Magazine& magazine)
    {
        Depot& depot = s_Depot;
        {
            const std::lock_guard<std::mutex> guard(depot.mutex);
            if (depot.uFull < DEPOT)
            {
                depot.full[depot.uFull++] = std::exchange(magazine, {});
                return;
            }
        }
        Free(magazine);
    }

    static void Free(Magazine& magazine)
    {
        while (Piece* pPiece = magazine.pFirst)
        {
            magazine.pFirst = pPiece->pNext;
            ::operator delete(pPiece);
        }
        magazine = {};
    }

    static inline thread_local Local t_Local;
    // Never made and never destroyed: it needs no memory, and threads may outlive main.
    static_assert(std::is_trivially_destructible_v<Depot>);
    static inline Depot s_Depot;
};

#endif
