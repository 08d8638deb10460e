#include "core/JoinedBlock.h"

#include "core/PieceCache.h"

#include <ace/Malloc_Allocator.h>

#include <new>

namespace {

// ACE frees a block before its data block, each by the allocator that it names. So the data block is the head of the piece
// and frees all of it, and the block frees nothing.
class KeepMemory : public ACE_New_Allocator
{
public:
    void free(void* /*pMemory*/) override {}
};

class FreeMemory : public ACE_New_Allocator
{
public:
    void free(void* pMemory) override { ::operator delete(pMemory); }
};

template <class PIECES>
class FreePiece : public ACE_New_Allocator
{
public:
    void free(void* pMemory) override { PIECES::Give(pMemory); }
};

struct Head
{
    alignas(ACE_Data_Block) unsigned char dataBlock[sizeof(ACE_Data_Block)];
    alignas(ACE_Message_Block) unsigned char block[sizeof(ACE_Message_Block)];
};

/// Memory, and how ACE gives it back.
struct Piece
{
    void* pMemory;
    ACE_Allocator* pFree;
};

/// An allocator that needs no memory for itself and is never destroyed: blocks may be released late.
template <class ALLOCATOR>
ALLOCATOR& Eternal()
{
    alignas(ALLOCATOR) static unsigned char memory[sizeof(ALLOCATOR)];
    static auto& allocator = *new (memory) ALLOCATOR;
    return allocator;
}

template <std::size_t BYTES, std::size_t MAGAZINE, std::size_t DEPOT>
Piece TakeCached()
{
    using Pieces = PieceCache<BYTES, MAGAZINE, DEPOT>;
    return {Pieces::Take(), &Eternal<FreePiece<Pieces>>()};
}

Piece TakePiece(std::size_t uBytes)
{
    // A queue may hold a million of them, so their sizes are near what is needed. What is longer is kept by the handful.
    constexpr std::size_t TINY = 256;
    constexpr std::size_t SHORT = 512;
    constexpr std::size_t MIDDLE = 4096;
    constexpr std::size_t LONG = 17 * 1024;
    if (uBytes <= sizeof(Head))
        return TakeCached<sizeof(Head), 32, 64>();
    if (uBytes <= TINY)
        return TakeCached<TINY, 32, 64>();
    if (uBytes <= SHORT)
        return TakeCached<SHORT, 32, 64>();
    if (uBytes <= MIDDLE)
        return TakeCached<MIDDLE, 8, 16>();
    if (uBytes <= LONG)
        return TakeCached<LONG, 4, 16>();
    return {::operator new(uBytes, std::nothrow), &Eternal<FreeMemory>()};
}

/// @param uRoom  bytes behind the blocks
ACE_Message_Block* NewBlock(const char* pBytes, std::size_t uLength, std::size_t uRoom)
{
    auto& keepMemory = Eternal<KeepMemory>();
    const Piece piece = TakePiece(sizeof(Head) + uRoom);
    if (piece.pMemory == nullptr)
        return nullptr;
    auto* pHead = static_cast<Head*>(piece.pMemory);
    if (pBytes == nullptr)
        pBytes = reinterpret_cast<const char*>(pHead + 1);
    auto* pDataBlock =
        new (pHead->dataBlock) ACE_Data_Block(uLength, ACE_Message_Block::MB_DATA, pBytes, &keepMemory,
                                              nullptr, ACE_Message_Block::DONT_DELETE, piece.pFree);
    return new (pHead->block) ACE_Message_Block(pDataBlock, 0, &keepMemory);
}

} // namespace

ACE_Message_Block* NewJoinedBlock(const char* pBytes, std::size_t uLength)
{
    return NewBlock(pBytes, uLength, 0);
}

ACE_Message_Block* NewJoinedBlock(std::size_t uLength)
{
    return NewBlock(nullptr, uLength, uLength);
}
