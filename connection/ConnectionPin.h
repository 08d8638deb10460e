#ifndef TARN_CONNECTION_CONNECTIONPIN_H
#define TARN_CONNECTION_CONNECTIONPIN_H

class TarnConnector;
class TarnConnectorImpl;

/// Keeps a facade's transport from being deleted for its own lifetime: another thread may put a new transport
/// in its place meanwhile.
class ConnectionPin
{
public:
    /// @param pszMissing  logged at level 1 when there is no transport; null: nothing is
    ConnectionPin(TarnConnector& connector, const char* pszMissing);
    explicit ConnectionPin(TarnConnectorImpl& connection);
    ~ConnectionPin();
    ConnectionPin(const ConnectionPin&) = delete;
    ConnectionPin& operator=(const ConnectionPin&) = delete;

    explicit operator bool() const { return m_pImpl != nullptr; }
    TarnConnectorImpl* operator->() const { return m_pImpl; }
    TarnConnectorImpl* Get() const { return m_pImpl; }

private:
    TarnConnectorImpl* m_pImpl = nullptr;
};

#endif
