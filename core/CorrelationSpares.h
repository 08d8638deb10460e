#ifndef TARN_CORE_CORRELATIONSPARES_H
#define TARN_CORE_CORRELATIONSPARES_H

#include "core/SpareNodes.h"
#include "tarnadapterframe/TEAdapterManager.h"

#include <list>

/// What erased entries of the correlation maps leave for the next ones. Guarded by the correlation lock, as the maps are.
struct CorrelationSpares
{
    SpareNodes<TEAdapterManager::MapMsgInfo> infos;
    SpareNodes<TEAdapterManager::MapSinkToSource> links;

    /// Appends a unit to a record's list.
    void Append(TEMessageInfo& info, const TEMessageUnit& unit)
    {
        if (m_Units.empty())
        {
            info.AddSinkMessage(unit);
            return;
        }
        m_Units.front() = unit;
        info.lstSinkUnit.splice(info.lstSinkUnit.end(), m_Units, m_Units.begin());
    }

    /// Keeps an extracted record with its list. It owns no message any more.
    void Keep(TEAdapterManager::MapMsgInfo::node_type&& node)
    {
        constexpr std::size_t MOST_UNITS = 1024;
        if (m_Units.size() < MOST_UNITS)
            m_Units.splice(m_Units.end(), node.mapped().lstSinkUnit);
        node.mapped() = TEMessageInfo();
        infos.Keep(std::move(node));
    }

private:
    std::list<TEMessageUnit> m_Units;
};

#endif
