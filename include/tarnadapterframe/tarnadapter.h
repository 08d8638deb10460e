#ifndef TARNADAPTERFRAME_TARNADAPTER_H
#define TARNADAPTERFRAME_TARNADAPTER_H

#include "tarnadapterframe/Export.h"

/// Starts and stops the whole library. The host calls both from one thread, before and after all other use.
/// It may start the library again after a stop, any number of times, and must stop it before it exits.
class TARN_ADAPTER_API tarnadapter
{
public:
    /// Reads the settings from the host's configuration and starts the adapter manager. A key that the
    /// configuration does not hold leaves its setting as it is.
    /// @return 0 when the library runs afterwards, also when it ran before (the settings are then not read
    ///         again); -1 when it could not be started, with the reason in the log. It may then be called
    ///         again.
    static int Init();

    /// Stops the library: every thread it started has ended, and every protocol adapter that was ever
    /// registered with it has been deleted, when it returns. It logs what it waits for. A repeated stop says
    /// so in the log; it cleans up after a start that has failed in between.
    ///
    /// What TEAdapterManager::Instance and the other managers' gave out is void afterwards: the host's own
    /// threads must not be inside an operation of theirs, except the destructors of connectors and messages, and
    /// waits for answers (TarnAsn1Message::SyncHandleMessage, PSyncHelp::Waiting), which end. Connectors, and the
    /// descriptors they hold, stay; so do messages that are registered or queued.
    static void Fini();

private:
    tarnadapter() = delete;
    ~tarnadapter() = delete;

    static bool m_bTarnadapterInit; ///< started successfully
    static bool m_bTarnadapterFini; ///< stopped
};

#endif
