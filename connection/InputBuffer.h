#ifndef TARN_CONNECTION_INPUTBUFFER_H
#define TARN_CONNECTION_INPUTBUFFER_H

#include <algorithm>
#include <cstddef>
#include <vector>

/// Received bytes that have not been framed yet. Bytes outlive the session in which they came; how many do is counted,
/// so that an adapter can tell them from those of the present one. Touched by one thread at a time.
class InputBuffer
{
public:
    /// Bytes without a whole message at which the adapter is taken to have lost its way.
    static constexpr std::size_t MAX_BYTES = std::size_t{16} << 20U;

    /// What the adapter looks at; it does not change it.
    std::vector<unsigned char>& Bytes() { return m_Bytes; }
    /// Bytes at the head that an earlier session has left.
    std::size_t Stale() const { return m_uStale; }
    bool IsEmpty() const { return m_Bytes.empty(); }
    bool IsFull() const { return m_Bytes.size() >= MAX_BYTES; }

    /// What is there now is of earlier sessions.
    void BeginSession() { m_uStale = m_Bytes.size(); }
    void Append(const unsigned char* pBytes, std::size_t uLength)
    {
        m_Bytes.insert(m_Bytes.end(), pBytes, pBytes + uLength);
    }
    /// Removes bytes from the head; all, if there are not so many. An empty buffer keeps little room.
    void Consume(std::size_t uLength)
    {
        constexpr std::size_t MAX_IDLE_CAPACITY = 65536;
        uLength = std::min(uLength, m_Bytes.size());
        m_Bytes.erase(m_Bytes.begin(), m_Bytes.begin() + static_cast<std::ptrdiff_t>(uLength));
        m_uStale -= std::min(m_uStale, uLength);
        if (m_Bytes.empty() && m_Bytes.capacity() > MAX_IDLE_CAPACITY)
            m_Bytes.shrink_to_fit();
    }
    void Clear() { Consume(m_Bytes.size()); }

private:
    std::vector<unsigned char> m_Bytes;
    std::size_t m_uStale = 0;
};

#endif
