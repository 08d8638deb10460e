#ifndef TARN_CORE_STOPPABLEREACTOR_H
#define TARN_CORE_STOPPABLEREACTOR_H

#include <atomic>

/// A reactor of ACE's whose event loops may be ended by another thread: ACE's loops read a plain number without
/// the token for that, here they read an atomic.
template <class Reactor>
class StoppableReactor : public Reactor
{
public:
    void deactivate(int iStop) override
    {
        m_iDeactivated = iStop;
        Reactor::deactivate(iStop); // wakes the loops
    }
    int deactivated() override { return m_iDeactivated; }

private:
    std::atomic<int> m_iDeactivated{0};
};

#endif
