#ifndef TARN_TESTS_SUPPORT_ELEMENT_H
#define TARN_TESTS_SUPPORT_ELEMENT_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

/// A network element for tests: listens on 127.0.0.1 and answers each request with the same bytes.
///
/// A frame is the length of the rest (4 bytes, big endian), a serial (the same) and a payload. Serial 0 is a
/// spontaneous report. All operations may be called from any thread.
class Element
{
public:
    struct Behaviour
    {
        bool bAnswer = true;
        bool bRead = true;       ///< false: requests are left in the socket
        bool bFlood = false;     ///< reports without end, on every connection
        bool bGarbage = false;   ///< an answer is bytes that are no frame
        int iDelayMs = 0;        ///< before each answer
        int iPieceBytes = 0;     ///< above 0: output leaves in pieces of this size
        int iCutAfterBytes = -1; ///< 0 or above: so much of an answer is sent, then the connection is closed
        int iDropAfterMs = -1;   ///< 0 or above: a connection is closed so long after it was accepted
    };

    Element();
    ~Element();
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

    std::uint16_t Port() const { return m_usPort; }

    void Behave(const Behaviour& behaviour);
    /// Closes all connections, with a reset (RST) or in order.
    void DropAll(bool bReset);
    /// Sends raw bytes on every connection.
    void SendToAll(const std::string& strBytes);
    /// From now on connections are refused, or accepted again on the same port.
    void StopListening();
    void StartListening();

    int Open() const;     ///< connections
    int Accepted() const; ///< connections so far
    int Requests() const; ///< frames received so far
    int BadFrames() const;

    static std::string Frame(std::uint32_t ulSerial, const std::string& strPayload);

private:
    using Clock = std::chrono::steady_clock;

    struct Connection
    {
        std::string strIn;
        std::string strOut;
        std::deque<std::pair<Clock::time_point, std::string>> delayed;
        Clock::time_point tDrop = Clock::time_point::max();
        bool bCloseWhenSent = false;
    };

    void Run();
    int WaitMs() const;
    void Accept();
    bool Receive(int iFd, Connection& connection);
    bool Answer(Connection& connection);
    bool Send(int iFd, Connection& connection);
    bool Tick(int iFd, Connection& connection);
    void Close(int iFd, bool bReset);
    void Watch(int iFd, const Connection& connection);
    void Wake();
    void Listen();

    std::uint16_t m_usPort = 0;
    const int m_iEpoll;
    const int m_iWake;

    mutable std::mutex m_Mutex;
    // Guarded by m_Mutex.
    int m_iListener = -1;
    Behaviour m_Behaviour;
    std::map<int, Connection> m_Connections;
    bool m_bStop = false;
    int m_nAccepted = 0;
    int m_nRequests = 0;
    int m_nBadFrames = 0;

    std::thread m_Thread;
};

/// A port on 127.0.0.1 whose connects neither succeed nor fail: its backlog is full.
class HangingListener
{
public:
    HangingListener();
    ~HangingListener();
    HangingListener(const HangingListener&) = delete;
    HangingListener& operator=(const HangingListener&) = delete;

    std::uint16_t Port() const { return m_usPort; }

private:
    static constexpr int FILLERS = 4;

    std::uint16_t m_usPort = 0;
    int m_iListener = -1;
    int m_Fillers[FILLERS] = {-1, -1, -1, -1};
};

#endif
