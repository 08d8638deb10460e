#ifndef TARN_CORE_SYNCWAITS_H
#define TARN_CORE_SYNCWAITS_H

/// Threads that send and wait for the answers, in ticks of a second at most. The stop has them leave first, and waits
/// for them before anything that they use is gone; until the library is started again nobody waits.
class SyncWaits
{
public:
    /// One wait, for its own lifetime: from before the request is sent until it is forgotten.
    class Inside
    {
    public:
        Inside();
        ~Inside();
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

        /// False: waits are to end, so none is begun.
        explicit operator bool() const { return m_bAdmitted; }

    private:
        bool m_bAdmitted;
    };

    /// Waits are to end. Asked at each tick.
    static bool IsStopping();

    /// The library is started.
    static void Open();
    /// Has all waits end.
    static void Shut();
    /// Waits until nobody is inside, with a line in the log every second. Not to be called by somebody inside.
    static void WaitUntilNone();
};

#endif
