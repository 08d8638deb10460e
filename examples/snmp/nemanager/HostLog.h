#ifndef NEMANAGER_HOSTLOG_H
#define NEMANAGER_HOSTLOG_H

#include <string>

/// In place of the default host's log and settings, which are for servers: only what a user at a terminal can do something
/// about is shown, on the standard error, and lost connections are tried again each second.
class HostLog
{
public:
    /// Before the framework is started. @param bVerbose  shows everything, the trace of bytes included
    static void Install(bool bVerbose);

    /// From now on the traces of bytes are kept.
    static void KeepTraces();
    /// The kept ones, oldest first.
    static std::string Traces();
};

#endif
