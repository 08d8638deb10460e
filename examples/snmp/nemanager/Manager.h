#ifndef NEMANAGER_MANAGER_H
#define NEMANAGER_MANAGER_H

#include "ElementList.h"
#include "SnmpAdapter.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// The elements and the framework that runs under them. An element's NE id is its place in the list, counted from 1.
///
/// The operations are for the main thread. What the framework tells comes on its own threads, under m_Mutex.
class Manager : private SnmpListener
{
public:
    /// @param tell  called with a line for each event, one at a time, on threads of the framework; may be empty
    Manager(std::vector<ElementSettings> elements, std::function<void(const std::string&)> tell);
    ~Manager() override;
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    /// Starts the framework and has it connect all elements. Throws std::runtime_error.
    void Start();
    /// Stops the framework; nothing is told afterwards. Called once more it does nothing.
    void Stop();

    int Count() const { return static_cast<int>(m_Settings.size()); }
    const ElementSettings& Settings(int iNeId) const
    {
        return m_Settings[static_cast<std::size_t>(iNeId - 1)];
    }
    const std::string& Name(int iNeId) const { return Settings(iNeId).strName; }

    bool IsConnected(int iNeId) const;
    /// Waits until an element, or with 0 all of them, is connected. @return false when it is not in time, or an interrupt came
    bool WaitConnected(int iNeId, int nSeconds) const;
    /// How often it was connected, has broken, and has told something by itself.
    int Connects(int iNeId) const { return Read(iNeId).nConnects; }
    int Breaks(int iNeId) const { return Read(iNeId).nBreaks; }
    int Notifications(int iNeId) const { return Read(iNeId).nNotifications; }
    SnmpPacket LastNotification(int iNeId) const { return Read(iNeId).lastNotification; }

private:
    struct State
    {
        bool bConnected = false;
        int nConnects = 0;
        int nBreaks = 0;
        int nNotifications = 0;
        SnmpPacket lastNotification;
    };

    void OnConnected(int iNeId) override;
    void OnBroken(int iNeId) override;
    bool OnNotification(int iNeId, const SnmpPacket& packet) override;
    void Tell(const std::string& strLine) const;
    State Read(int iNeId) const;

    // Constant after construction.
    const std::vector<ElementSettings> m_Settings;
    const std::function<void(const std::string&)> m_Tell;

    // The main thread's.
    bool m_bRunning = false;
    std::vector<std::unique_ptr<SnmpElement>> m_Elements;

    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Changed;
    std::vector<State> m_States; // guarded by m_Mutex
};

/// What a message carries that was sent in a list and not answered, see PSyncHelp::Waiting.
constexpr int PSYNC_UNANSWERED = -8888;

/// What became of a question, in words: nothing for success.
std::string Failure(int iResult, const SnmpMessage& message);

#endif
