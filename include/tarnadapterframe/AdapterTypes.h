#ifndef TARNADAPTERFRAME_ADAPTERTYPES_H
#define TARNADAPTERFRAME_ADAPTERTYPES_H

/// @file
/// The enumerations that travel with messages, and the status codes.

/// Kind of a message. ASN.1 messages dispatch on it and reject any other value.
enum EAdapterMessageType : int
{
    COMMAND_MESSAGE = 1,  ///< a command; what a new message is
    RESPONSE_MESSAGE = 2, ///< a response
};

/// How the sender of a message learns of its answer.
enum EMessageSyncFlag : int
{
    SYNC_MESSAGE = 1,  ///< the sender waits for the answer itself
    ASYNC_MESSAGE = 2, ///< nobody waits: the manager's timer counts the message's timeout down
    PSYNC_MESSAGE = 3, ///< member of a list whose sender waits for all answers
};

/// Status codes of operations, beside 0 (success) and -1 (failure), and reasons given to
/// TEMessageAdapter::HandleAsyncError.
enum EAdapterError : int
{
    ADAPTER_ERR_TIMEOUT = 0x10000001,        ///< no answer in time, or the wait was cancelled
    ADAPTER_ERR_NO_MSG_ADAPTER = 0x10000002, ///< no message adapter reaches the message's target
    ADAPTER_ERR_NO_MEMORY = 0x1000000C,      ///< a wake-up object could not be created
    ADAPTER_ERR_REACTOR = 0x1000000F,        ///< the I/O reactor refused a handle
    ADAPTER_ERR_INVALID_HANDLE = 0x10000010, ///< the handle is invalid or not registered
    ADAPTER_ERR_MSG_TYPE = 0x10000011,       ///< the message is neither command nor response
    ADAPTER_ERR_NULL_DATA = 0x10000012,      ///< no data was given to send
};

#endif
