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

class FreePiece : public ACE_New_Allocator
{
public:
    void free(void* pMemory) override { ::operator delete(pMemory); }
};

// Short messages are most; these pieces are cached.
constexpr std::size_t SHORT_PIECE = 512;
using ShortPieces = PieceCache<SHORT_PIECE>;

class FreeShortPiece : public ACE_New_Allocator
{
public:
    void free(void* pMemory) override { ShortPieces::Give(pMemory); }
};

struct Piece
{
    alignas(ACE_Data_Block) unsigned char dataBlock[sizeof(ACE_Data_Block)];
    alignas(ACE_Message_Block) unsigned char block[sizeof(ACE_Message_Block)];
};

/// @param uRoom  bytes behind the blocks
ACE_Message_Block* NewPiece(const char* pBytes, std::size_t uLength, std::size_t uRoom)
{
    static auto& keepMemory = *new KeepMemory; // never destroyed: blocks may be released late
    static auto& freePiece = *new FreePiece;
    static auto& freeShortPiece = *new FreeShortPiece;
    const bool bShort = sizeof(Piece) + uRoom <= SHORT_PIECE;
    void* pMemory = bShort ? ShortPieces::Take() : ::operator new(sizeof(Piece) + uRoom, std::nothrow);
    if (pMemory == nullptr)
        return nullptr;
    auto* pPiece = static_cast<Piece*>(pMemory);
    if (pBytes == nullptr)
        pBytes = reinterpret_cast<const char*>(pPiece + 1);
    auto* pDataBlock = new (pPiece->dataBlock) ACE_Data_Block(
        uLength, ACE_Message_Block::MB_DATA, pBytes, &keepMemory, nullptr, ACE_Message_Block::DONT_DELETE,
        bShort ? static_cast<ACE_Allocator*>(&freeShortPiece) : &freePiece);
    return new (pPiece->block) ACE_Message_Block(pDataBlock, 0, &keepMemory);
}

} // namespace

ACE_Message_Block* NewJoinedBlock(const char* pBytes, std::size_t uLength)
{
    return NewPiece(pBytes, uLength, 0);
}

ACE_Message_Block* NewJoinedBlock(std::size_t uLength)
{
    return NewPiece(nullptr, uLength, uLength);
}
