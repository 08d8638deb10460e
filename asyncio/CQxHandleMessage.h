#ifndef TARN_ASYNCIO_CQXHANDLEMESSAGE_H
#define TARN_ASYNCIO_CQXHANDLEMESSAGE_H

#include "core/PieceCache.h"

#include <cstddef>
#include <new>

class TEMessage;

/// Entry of the response and report queues: a message to handle, or the order to a thread to stop. Allocated
/// for each entry and freed by whoever takes it out of its queue; the message is owned by the entry until
/// then.
struct CQxHandleMessage
{
    /// What an entry counts against a queue's water marks: the size given to its message block.
    static constexpr std::size_t BLOCK_SIZE = 8;

    // Made by an I/O thread and freed by an application one, with every message.
    using Pieces = PieceCache<16>;
    static void* operator new(std::size_t /*uBytes*/, const std::nothrow_t& /*tag*/) noexcept
    {
        return Pieces::Take();
    }
    static void operator delete(void* pEntry) noexcept { Pieces::Give(pEntry); }

    TEMessage* pMessage; ///< null in a stop entry
    int iStop;           ///< 1: the thread that takes it ends; 0: a message
};

static_assert(sizeof(CQxHandleMessage) <= 16);

#endif
