#ifndef TARNADAPTERFRAME_TRACEHEXDATA_H
#define TARNADAPTERFRAME_TRACEHEXDATA_H

/// @file
/// The trace of the bytes exchanged with network elements. Connections call TraceHexData for every block they send, and for
/// received bytes that are discarded (serial lines for all that they receive); adapters call it for the messages that they find in received bytes, since only they know
/// where one ends. An application may take the trace over with a callback.

#include "tarnadapterframe/Export.h"

#include <cstdint>
#include <string>

/// What a traced block of bytes is; decides its header line and its rendering. Any other value is traced as
/// other data, in hex.
enum ETarnAdpterTraceType : int
{
    TARN_TRACE_SEND_TO_NE = 1,    ///< bytes sent to an element, in hex
    TARN_TRACE_ASYNC_IO_RECV = 2, ///< bytes received by a connection, in hex
    TARN_TRACE_NE_MML = 3,        ///< text received from an element
    TARN_TRACE_TL1_RECV = 4,      ///< TL1 text received: a 4-byte prefix that is left out, then text
    TARN_TRACE_TL1_SEND = 5,      ///< TL1 text sent: a 4-byte prefix that is left out, then text
};

/// Called with the arguments of TraceHexData in place of the library's own rendering, on the tracing thread:
/// often an I/O thread with a lock of its connection held, or a thread in TarnAsn1Message::SyncHandleMessage with whatever
/// it holds, so it must neither block nor send, nor take a lock that is held around SyncHandleMessage. What it throws
/// is logged and goes no further.
using TarnTraceHexDataCBFunc = void (*)(const char* pData, int iLength, int iTraceType,
                                        std::uint32_t ulThreadId);

/// Renders a block of bytes and writes it at level 3 to the host's log (`bEnableAdapterLog`) and console
/// (`bEnableAdapterPrint`). At most `nTraceQxDataMaxLength` bytes are shown, hex rounded up to whole lines of
/// 16; never more than 1040 bytes of hex or 4096 characters of text. Nothing happens for null data or a
/// length below 1, nor for TL1 data shorter than 5 bytes. With a callback installed that is called instead,
/// always.
/// @param ulThreadId  shown by type 1 only: the thread that asked for the sending
TARN_ADAPTER_API void TraceHexData(const char* pData, int iLength, ETarnAdpterTraceType eTraceType,
                                   std::uint32_t ulThreadId);

/// Installs, replaces or, with null, removes the trace callback, with a log line at level 1. Meant for times
/// without traffic: a call that has begun may still end in the old callback.
/// @return the callback installed now
TARN_ADAPTER_API TarnTraceHexDataCBFunc RegisterTraceHexDataCBFunc(TarnTraceHexDataCBFunc pFunc);

/// Renders bytes as hex text, 16 a line, at most 112 of them. Empty for null data; one line feed for a length
/// below 1.
TARN_ADAPTER_API std::string OutputBuffer(const char* pData, int iLength);

#endif
