#ifndef TARN_CORE_MANAGERPARTS_H
#define TARN_CORE_MANAGERPARTS_H

class TarnProtocolAdapter;

/// What the adapter manager needs of rooms that stand above it. Each room sets its functions where the table
/// is defined, at compile time, so that they hold before main; null: the library is built without that room.
struct ManagerParts
{
    /// The built-in protocol adapter, which the manager registers under protocol id 1 when it is constructed
    /// and never deletes. May be called again after the library was stopped.
    TarnProtocolAdapter* (*pfnBuiltInAdapter)() = nullptr;

    /// Creates and starts asynchronous I/O; starting it again while it runs changes nothing. Called with no
    /// lock held. Negative: it could not be started.
    int (*pfnStartAsyncIO)() = nullptr;

    /// Ends the threads of asynchronous I/O and of connections and waits for them, if there are any. Called
    /// with no lock held, before the next.
    void (*pfnStopAsyncIO)() = nullptr;

    /// Deletes asynchronous I/O and the connection manager, if there are any. Called with ACE's static object lock held.
    void (*pfnDestroyAsyncIO)() = nullptr;
};

/// Constant outside of tests, and constant-initialised: the manager may be used before main.
extern ManagerParts g_ManagerParts;

/// Protocol id of the built-in adapter.
constexpr unsigned BUILT_IN_PROTOCOL_ID = 1;

#endif
