#ifndef TARN_CORE_SPARENODES_H
#define TARN_CORE_SPARENODES_H

#include <cstddef>
#include <utility>
#include <vector>

/// Nodes of a std::map's erased entries, for its next ones: where entries come and go with every message, each would be
/// allocated by one thread and freed by another. Whoever guards the map guards this.
template <class MAP>
class SpareNodes
{
public:
    SpareNodes() { m_Nodes.reserve(MOST); }
    SpareNodes(const SpareNodes&) = delete;
    SpareNodes& operator=(const SpareNodes&) = delete;

    /// Inserts an entry, unless there is one under the key. Quick when the key is beyond all others, as new serials are.
    /// @return the entry, and whether it is new
    std::pair<typename MAP::iterator, bool> Insert(MAP& map, const typename MAP::key_type& key,
                                                   typename MAP::mapped_type value)
    {
        const std::size_t uBefore = map.size();
        if (m_Nodes.empty())
        {
            const auto it = map.try_emplace(map.end(), key, std::move(value));
            return {it, map.size() != uBefore};
        }
        auto& node = m_Nodes.back();
        node.key() = key;
        node.mapped() = std::move(value);
        const auto it = map.insert(map.end(), std::move(node));
        const bool bNew = map.size() != uBefore;
        if (bNew)
            m_Nodes.pop_back(); // empty by now
        return {it, bNew};
    }

    /// Keeps the node of an entry that has been extracted, unless there are enough.
    void Keep(typename MAP::node_type&& node)
    {
        if (!node.empty() && m_Nodes.size() < MOST)
            m_Nodes.push_back(std::move(node));
    }

private:
    static constexpr std::size_t MOST = 1024;

    std::vector<typename MAP::node_type> m_Nodes;
};

#endif
