#ifndef TARN_CONNECTION_CONNECTIONKEY_H
#define TARN_CONNECTION_CONNECTIONKEY_H

#include <cstdint>
#include <tuple>

/// Key of a connection: ordered by group id (signed), then by target id (unsigned). A key whose group id is
/// below 0 is none.
struct ConnectionKey
{
    int iGroupID;
    std::uint32_t ulTargetID;

    bool operator<(const ConnectionKey& other) const
    {
        return std::tie(iGroupID, ulTargetID) < std::tie(other.iGroupID, other.ulTargetID);
    }
};

#endif
