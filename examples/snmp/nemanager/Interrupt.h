#ifndef NEMANAGER_INTERRUPT_H
#define NEMANAGER_INTERRUPT_H

#include <chrono>

/// SIGINT, SIGTERM and SIGHUP end the program in good order; a second one ends it at once.
class Interrupt
{
public:
    /// Called once, before the framework is started. Waits of the framework end, too, from the signal on.
    static void Catch();

    static bool HasCome();
    /// Returns early when the signal comes.
    static void Sleep(std::chrono::milliseconds time);
};

#endif
