#include "platform/tarnplatform.h"
#include "support/SerialLine.h"
#include "support/Threads.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <string>
#include <thread>

namespace {

HANDLE OpenPort(const std::string& strName)
{
    return CreateFileA(strName.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
}

DWORD OpeningError(const std::string& strName)
{
    EXPECT_EQ(OpenPort(strName), INVALID_HANDLE_VALUE) << strName;
    return GetLastError();
}

/// An open port in raw mode.
class SerialPorts : public ::testing::Test
{
protected:
    SerialPorts()
        : hPort(OpenPort(line.Port()))
    {
        EXPECT_NE(hPort, INVALID_HANDLE_VALUE);
        EXPECT_EQ(SetRate(115200), TRUE);
        operation.hEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    }
    ~SerialPorts() override
    {
        CloseHandle(hPort);
        CloseHandle(operation.hEvent);
    }
    BOOL SetRate(DWORD dwBaud) const
    {
        DCB settings = {};
        EXPECT_EQ(GetCommState(hPort, &settings), TRUE);
        settings.BaudRate = dwBaud;
        settings.ByteSize = 8;
        settings.fInX = 0;
        settings.fOutX = 0;
        return SetCommState(hPort, &settings);
    }
    /// Milliseconds that a write may last; 0: no limit.
    void LimitWrites(DWORD dwMs) const
    {
        const COMMTIMEOUTS timeouts = {MAXDWORD, 0, 1000, 0, dwMs};
        EXPECT_EQ(SetCommTimeouts(hPort, &timeouts), TRUE);
    }
    /// Begins a write of more than the line takes.
    void BeginWrite()
    {
        DWORD dwWritten = 0;
        EXPECT_EQ(
            WriteFile(hPort, strLarge.data(), static_cast<DWORD>(strLarge.size()), &dwWritten, &operation),
            FALSE);
        EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
    }

    const std::string strLarge = std::string(100'000, 'x');
    SerialLine line;
    const HANDLE hPort;
    OVERLAPPED operation{};
};

} // namespace

TEST_F(SerialPorts, OnlyATerminalIsOpenedAndOnlyOnce)
{
    EXPECT_EQ(OpeningError("/dev/no such port"), static_cast<DWORD>(ENOENT));
    EXPECT_EQ(OpeningError(""), static_cast<DWORD>(ENOENT));
    EXPECT_EQ(OpeningError("/tmp"), static_cast<DWORD>(ENOTTY));
    EXPECT_EQ(OpeningError("/proc/self/exe"), static_cast<DWORD>(ENOTTY));
    EXPECT_EQ(OpeningError("/dev/null"), static_cast<DWORD>(ENOTTY));
    EXPECT_EQ(OpeningError(std::string(5000, 'x')), static_cast<DWORD>(ENAMETOOLONG));
    EXPECT_EQ(OpeningError(line.Port()), static_cast<DWORD>(EBUSY)) << "for root, too";
    const int nOpen = DescriptorCount();
    EXPECT_EQ(CloseHandle(hPort), TRUE);
    EXPECT_EQ(PortDescriptor(hPort), -1);
    const HANDLE hAgain = OpenPort(line.Port());
    ASSERT_NE(hAgain, INVALID_HANDLE_VALUE);
    EXPECT_EQ(DescriptorCount(), nOpen);
    EXPECT_EQ(CloseHandle(hAgain), TRUE);
}

TEST_F(SerialPorts, TheRateIsSetForWhatTermiosKnowsAndRefusedElse)
{
    const std::pair<DWORD, speed_t> rates[] = {
        {50, B50}, {9600, B9600}, {115200, B115200}, {4000000, B4000000}};
    for (const auto& [dwBaud, speed] : rates)
    {
        EXPECT_EQ(SetRate(dwBaud), TRUE) << dwBaud;
        EXPECT_EQ(line.Speed(), speed);
        DCB settings = {};
        EXPECT_EQ(GetCommState(hPort, &settings), TRUE);
        EXPECT_EQ(settings.BaudRate, dwBaud);
        EXPECT_EQ(settings.ByteSize, 8);
    }
    // 13 is the code of 9600.
    for (const DWORD dwBaud : {0U, 13U, 12345U, 0xFFFFFFFFU})
    {
        EXPECT_EQ(SetRate(dwBaud), FALSE) << dwBaud;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(EINVAL));
    }
    EXPECT_EQ(line.Speed(), B4000000);
}

TEST_F(SerialPorts, EveryByteValueGoesThroughBothWays)
{
    std::string strAll;
    for (int i = 0; i < 256; ++i)
        strAll += static_cast<char>(i);
    DWORD dwCount = 0;
    EXPECT_EQ(WriteFile(hPort, strAll.data(), 256, &dwCount, &operation), TRUE);
    EXPECT_EQ(line.Receive(256), strAll);
    EXPECT_EQ(SetCommMask(hPort, EV_RXCHAR), TRUE);
    line.Send(strAll);
    std::string strReceived;
    while (strReceived.size() < 256)
    {
        DWORD dwEvents = 0;
        OVERLAPPED waiting = {};
        waiting.hEvent = operation.hEvent;
        ASSERT_EQ(WaitCommEvent(hPort, &dwEvents, &waiting), TRUE);
        EXPECT_EQ(dwEvents, EV_RXCHAR);
        EXPECT_EQ(WaitForSingleObject(operation.hEvent, 0), WAIT_OBJECT_0);
        char received[80];
        ASSERT_EQ(ReadFile(hPort, received, sizeof(received), &dwCount, &operation), TRUE);
        strReceived.append(received, dwCount);
    }
    EXPECT_EQ(strReceived, strAll);
    EXPECT_EQ(ReadFile(hPort, strReceived.data(), 1, &dwCount, &operation), TRUE)
        << "nothing there is no error";
    EXPECT_EQ(dwCount, 0U);
    COMSTAT status = {7, 7};
    DWORD dwErrors = 7;
    EXPECT_EQ(ClearCommError(hPort, &dwErrors, &status), TRUE);
    EXPECT_EQ(dwErrors, 0U);
    EXPECT_EQ(status.cbInQue, 0U);
    EXPECT_EQ(EscapeCommFunction(hPort, SETDTR), TRUE) << "a line without modem lines";
}

TEST_F(SerialPorts, AWaitEndsWhenTheMaskIsChangedAndFailsWhenTheOtherEndIsGone)
{
    EXPECT_EQ(SetCommMask(hPort, EV_RXCHAR), TRUE);
    OVERLAPPED waiting = {};
    waiting.hEvent = operation.hEvent;
    DWORD dwEvents = 7;
    std::thread waiter([&] { EXPECT_EQ(WaitCommEvent(hPort, &dwEvents, &waiting), TRUE); });
    EXPECT_EQ(SetCommMask(hPort, 0), TRUE);
    waiter.join();
    EXPECT_EQ(dwEvents, 0U);
    EXPECT_EQ(WaitForSingleObject(operation.hEvent, 0), WAIT_OBJECT_0);

    EXPECT_EQ(SetCommMask(hPort, EV_RXCHAR), TRUE);
    line.Remove();
    char received[80];
    DWORD dwCount = 0;
    EXPECT_EQ(WaitCommEvent(hPort, &dwEvents, &waiting), FALSE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(EIO));
    EXPECT_EQ(ReadFile(hPort, received, sizeof(received), &dwCount, &operation), FALSE);
    EXPECT_EQ(WriteFile(hPort, "x", 1, &dwCount, &operation), FALSE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(EIO));
}

TEST_F(SerialPorts, AWriteThatIsNotTakenEndsByItsTimeAndTellsHowFarItCame)
{
    LimitWrites(300);
    BeginWrite();
    DWORD dwCount = 0;
    EXPECT_EQ(GetOverlappedResult(hPort, &operation, &dwCount, FALSE), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_IO_INCOMPLETE);
    EXPECT_EQ(GetOverlappedResult(hPort, &operation, &dwCount, TRUE), TRUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ETIMEDOUT));
    EXPECT_LT(dwCount, strLarge.size());
    EXPECT_EQ(line.Receive(dwCount).size(), dwCount);
}

TEST_F(SerialPorts, AWriteUnderWayIsEndedByAPurgeAndByTheClosing)
{
    LimitWrites(0);
    BeginWrite();
    DWORD dwCount = 0;
    std::thread purger([&] { EXPECT_EQ(PurgeComm(hPort, PURGE_TXABORT), TRUE); });
    EXPECT_EQ(GetOverlappedResult(hPort, &operation, &dwCount, TRUE), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_OPERATION_ABORTED);
    purger.join();
    EXPECT_EQ(line.Receive(dwCount).size(), dwCount) << "what was taken before is told";

    BeginWrite();
    std::thread closer([&] { EXPECT_EQ(CloseHandle(hPort), TRUE); });
    EXPECT_EQ(GetOverlappedResult(hPort, &operation, &dwCount, TRUE), FALSE);
    closer.join();
    EXPECT_GT(dwCount, 0U);
    DWORD dwWritten = 0;
    EXPECT_EQ(WriteFile(hPort, "more", 4, &dwWritten, &operation), FALSE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(EBADF));
}
