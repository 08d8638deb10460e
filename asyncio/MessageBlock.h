#ifndef TARN_ASYNCIO_MESSAGEBLOCK_H
#define TARN_ASYNCIO_MESSAGEBLOCK_H

#include "asyncio/CQxHandleMessage.h"
#include "core/JoinedBlock.h"

/// @file
/// How an entry travels in a queue: in a block built over it, which does not own it.

/// Null without memory: the entry stays its caller's.
inline ACE_Message_Block* MakeEntryBlock(CQxHandleMessage& entry)
{
    return NewJoinedBlock(reinterpret_cast<const char*>(&entry), CQxHandleMessage::BLOCK_SIZE);
}

/// The entry in a block, or null.
inline CQxHandleMessage* EntryOf(const ACE_Message_Block& block)
{
    return reinterpret_cast<CQxHandleMessage*>(block.base());
}

/// Frees a block and its entry, not the message.
inline void FreeEntryBlock(ACE_Message_Block* pBlock)
{
    delete EntryOf(*pBlock);
    pBlock->release();
}

#endif
