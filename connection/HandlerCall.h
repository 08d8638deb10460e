#ifndef TARN_CONNECTION_HANDLERCALL_H
#define TARN_CONNECTION_HANDLERCALL_H

#include <cstdint>

class InputBuffer;
class TarnConnectorImpl;

/// A call of a connection's handle_input or handle_output by the reactor, or of its adapter by a transport's own
/// receiving thread, for as long as it lasts. Remembers
/// which opening of the connection it was made for: the connection may be closed and opened again meanwhile,
/// and what the call does then must not reach the new descriptor.
class HandlerCall
{
public:
    explicit HandlerCall(TarnConnectorImpl& connection);
    /// A call by the transport's own thread, with a buffer of its own.
    HandlerCall(TarnConnectorImpl& connection, const InputBuffer& input);
    ~HandlerCall();
    HandlerCall(const HandlerCall&) = delete;
    HandlerCall& operator=(const HandlerCall&) = delete;

    TarnConnectorImpl& Connection() const { return m_Connection; }
    /// The bytes that are being framed.
    const InputBuffer& Input() const { return m_Input; }
    /// The opening, counted from 1; 0: the connection was not being served any more when the call began.
    std::uint32_t Session() const { return m_ulSession; }

    /// From now on the call touches neither buffer nor descriptor, so the connection may be served anew.
    void LeaveBuffers() { m_bInBuffers = false; }
    bool IsInBuffers() const { return m_bInBuffers; }

    /// The calling thread's innermost call, of any connection or of this one; null when there is none.
    static HandlerCall* Current();
    static HandlerCall* CurrentOf(const TarnConnectorImpl& connection);

private:
    TarnConnectorImpl& m_Connection;
    const InputBuffer& m_Input;
    const std::uint32_t m_ulSession;
    bool m_bInBuffers = true;
    HandlerCall* const m_pOuter;
};

#endif
