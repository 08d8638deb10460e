#ifndef TARN_TESTS_SUPPORT_PROCESS_H
#define TARN_TESTS_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// A program that a test starts; it ends with the object at the latest.
class Process
{
public:
    /// @param arguments  the program, found along PATH, and its arguments
    explicit Process(const std::vector<std::string>& arguments);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Writes to its standard input.
    void Write(const std::string& strBytes) const;
    /// What it has written so far to its standard output and error.
    std::string Output() const;
    /// Waits until it has written a text, from a place in its output on.
    bool HasWritten(const std::string& strText, std::size_t uFrom = 0) const;
    /// Stops and continues it.
    void Freeze() const;
    void Thaw() const;

private:
    pid_t m_Process = -1;
    int m_iInput = -1;
    mutable std::mutex m_Mutex;
    std::string m_strOutput; // guarded by m_Mutex
    std::thread m_Reader;    // keeps the program from waiting for somebody to read
};

/// A port of 127.0.0.1 that nobody listens on just now.
std::uint16_t FreePort();

/// Waits until somebody listens on a port of 127.0.0.1.
bool IsListenedOn(std::uint16_t usPort);

#endif
