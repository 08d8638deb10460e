#ifndef TARN_CORE_JOINEDBLOCK_H
#define TARN_CORE_JOINEDBLOCK_H

#include <ace/Message_Block.h>

#include <cstddef>

/// @file
/// Blocks for ACE's queues in one piece of memory: the block, its data block and, if wanted, the bytes. ACE's own
/// constructors allocate each by itself, for every message that goes through a queue. The block's release() frees the piece.

/// A block over bytes that are not its own. Null without memory.
ACE_Message_Block* NewJoinedBlock(const char* pBytes, std::size_t uLength);
/// A block with bytes of its own, not set, from base() on. Null without memory.
ACE_Message_Block* NewJoinedBlock(std::size_t uLength);

#endif
