#ifndef TARNADAPTERFRAME_TEMESSAGEINFO_H
#define TARNADAPTERFRAME_TEMESSAGEINFO_H

#include "tarnadapterframe/Export.h"

#include <cstddef>
#include <cstdint>
#include <list>

class TEMessage;
class TEMessageAdapter;

/// Key of a message in the correlation maps: its serial and its adapter's protocol id.
struct TARN_ADAPTER_API TEMessageUnit
{
    std::uint32_t ulSerial = 0;
    std::uint32_t ulProtocolID = 2;
    std::uint32_t ulReserved = 0; ///< 0 in every unit of the framework; equality looks at it, order does not

    TEMessageUnit() = default;
    TEMessageUnit(std::uint32_t ulMsgSerial, std::uint32_t ulMsgProtocolID);

    /// By protocol id, then by serial.
    bool operator<(const TEMessageUnit& other) const
    {
        return ulProtocolID != other.ulProtocolID ? ulProtocolID < other.ulProtocolID
                                                  : ulSerial < other.ulSerial;
    }
    bool operator==(const TEMessageUnit& other) const;
};

/// Correlation record of one source message. A record of the manager's map is read and changed only with the
/// correlation lock held (TEAdapterManager::AcquireMsgMapMtx).
struct TARN_ADAPTER_API TEMessageInfo
{
    TEMessage* pSource = nullptr;            ///< the source message, not owned
    TEMessage* pOwnedMsg = nullptr;          ///< deleted with the record; null unless a user sets it
    std::list<TEMessageUnit> lstSinkUnit;    ///< the sink messages sent for the source, in order of insertion
    void* pUserData = nullptr;               ///< the caller's TEMsgUserData, not owned by the record
    int nTimeOut = 60;                       ///< seconds left, as of the timer's last tick
    TEMessageAdapter* pMsgAdapter = nullptr; ///< told about answers and errors, not owned

    TEMessageInfo() = default;
    /// @param pSink  becomes the first listed sink message when it is not null
    TEMessageInfo(TEMessage* pSourceMsg, TEMessageAdapter* pAdapter, TEMessage* pSink, int nSeconds);

    /// A copy has everything but the owned message: that stays with the original.
    TEMessageInfo(const TEMessageInfo& other);
    /// Like the copy; an owned message that this record held is deleted. Assigning to itself changes nothing.
    TEMessageInfo& operator=(const TEMessageInfo& other);
    /// Deletes the owned message, logged at level 2; nothing else that the record points to.
    ~TEMessageInfo();

    std::size_t GetSinkMessageCount() const;
    /// Lists the unit, also when it is listed already. Like copying, std::bad_alloc without memory.
    void AddSinkMessage(const TEMessageUnit& unit);
    /// Removes every listed unit that equals it.
    void DeleteSinkMessage(const TEMessageUnit& unit);
    /// Replaces the user data; the earlier one is not deleted. Null is refused with a log line.
    void SetUserData(void* pData);
    /// Deletes the owned message now, logged at level 2; nothing happens when there is none.
    void DeleteOwnedMessage();
};

#endif
