#include "platform/SerialPort.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sys/ioctl.h>
#include <termios.h>

namespace {

struct Rate
{
    DWORD dwBaud;
    speed_t uCode;
};

// All that termios(3) knows; B0 would hang up.
constexpr Rate RATES[] = {
    {50, B50},           {75, B75},           {110, B110},         {134, B134},         {150, B150},
    {200, B200},         {300, B300},         {600, B600},         {1200, B1200},       {1800, B1800},
    {2400, B2400},       {4800, B4800},       {9600, B9600},       {19200, B19200},     {38400, B38400},
    {57600, B57600},     {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
    {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000}};

constexpr tcflag_t BYTE_SIZES[] = {CS5, CS6, CS7, CS8};
constexpr BYTE LEAST_BYTE_SIZE = 5;

void SetFlag(tcflag_t& uFlags, tcflag_t uFlag, bool bOn)
{
    uFlags = bOn ? uFlags | uFlag : uFlags & ~uFlag;
}

/// @return false for what termios(3) cannot express
bool SetCharacter(termios& line, const DCB& settings)
{
    if (settings.ByteSize < LEAST_BYTE_SIZE || settings.ByteSize >= LEAST_BYTE_SIZE + std::size(BYTE_SIZES) ||
        settings.Parity > EVENPARITY || (settings.StopBits != ONESTOPBIT && settings.StopBits != TWOSTOPBITS))
        return false;
    line.c_cflag = (line.c_cflag & ~tcflag_t{CSIZE}) | BYTE_SIZES[settings.ByteSize - LEAST_BYTE_SIZE];
    SetFlag(line.c_cflag, PARENB, settings.Parity != NOPARITY);
    SetFlag(line.c_cflag, PARODD, settings.Parity == ODDPARITY);
    SetFlag(line.c_cflag, CSTOPB, settings.StopBits == TWOSTOPBITS);
    SetFlag(line.c_iflag, INPCK, settings.fParity != 0);
    return true;
}

void SetFlow(termios& line, const DCB& settings)
{
    // This system has both directions of the hardware handshake or none.
    SetFlag(line.c_cflag, CRTSCTS, settings.fOutxCtsFlow != 0);
    SetFlag(line.c_iflag, IXON, settings.fOutX != 0);
    SetFlag(line.c_iflag, IXOFF, settings.fInX != 0);
    line.c_cc[VSTART] = static_cast<cc_t>(settings.XonChar);
    line.c_cc[VSTOP] = static_cast<cc_t>(settings.XoffChar);
}

/// A line without modem lines, such as a pseudo terminal, has none to hold.
void HoldModemLines(int iDescriptor, const DCB& settings)
{
    const int iHeld = (settings.fDtrControl == DTR_CONTROL_ENABLE ? TIOCM_DTR : 0) |
                      (settings.fRtsControl == RTS_CONTROL_ENABLE ? TIOCM_RTS : 0);
    if (iHeld != 0)
        ioctl(iDescriptor, TIOCMBIS, &iHeld);
}

BOOL FailWithErrno()
{
    return FailWith(static_cast<DWORD>(errno));
}

} // namespace

BOOL GetCommState(HANDLE hPort, DCB* pSettings)
{
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    termios line = {};
    if (tcgetattr(port->Descriptor(), &line) == -1)
        return FailWithErrno();
    const auto* pRate = std::find_if(std::begin(RATES), std::end(RATES),
                                     [&](const Rate& rate) { return rate.uCode == cfgetospeed(&line); });
    const auto* pSize = std::find(std::begin(BYTE_SIZES), std::end(BYTE_SIZES), line.c_cflag & CSIZE);
    *pSettings = {};
    pSettings->DCBlength = sizeof(DCB);
    pSettings->BaudRate = pRate != std::end(RATES) ? pRate->dwBaud : 0;
    pSettings->fBinary = 1;
    pSettings->fParity = (line.c_iflag & INPCK) != 0;
    pSettings->fOutxCtsFlow = (line.c_cflag & CRTSCTS) != 0;
    pSettings->fOutX = (line.c_iflag & IXON) != 0;
    pSettings->fInX = (line.c_iflag & IXOFF) != 0;
    pSettings->fDtrControl = DTR_CONTROL_ENABLE;
    pSettings->fRtsControl = (line.c_cflag & CRTSCTS) != 0 ? RTS_CONTROL_HANDSHAKE : RTS_CONTROL_ENABLE;
    pSettings->ByteSize = static_cast<BYTE>(LEAST_BYTE_SIZE + (pSize - std::begin(BYTE_SIZES)));
    pSettings->Parity = (line.c_cflag & PARENB) == 0   ? NOPARITY
                        : (line.c_cflag & PARODD) != 0 ? ODDPARITY
                                                       : EVENPARITY;
    pSettings->StopBits = (line.c_cflag & CSTOPB) != 0 ? TWOSTOPBITS : ONESTOPBIT;
    pSettings->XonChar = static_cast<char>(line.c_cc[VSTART]);
    pSettings->XoffChar = static_cast<char>(line.c_cc[VSTOP]);
    return TRUE;
}

BOOL SetCommState(HANDLE hPort, const DCB* pSettings)
{
    const SerialPort::Use port(hPort);
    if (!port)
        return FALSE;
    if (pSettings->fDtrControl == DTR_CONTROL_HANDSHAKE || pSettings->fOutxDsrFlow != 0)
        return FailWith(ENOTSUP);
    const auto* pRate = std::find_if(std::begin(RATES), std::end(RATES),
                                     [&](const Rate& rate) { return rate.dwBaud == pSettings->BaudRate; });
    termios line = {};
    if (tcgetattr(port->Descriptor(), &line) == -1)
        return FailWithErrno();
    cfmakeraw(&line);
    if (pRate == std::end(RATES) || !SetCharacter(line, *pSettings))
        return FailWith(EINVAL);
    SetFlow(line, *pSettings);
    // Without CLOCAL a carrier that drops would hang the line up for good. A break is no zero byte.
    line.c_cflag |= CLOCAL | CREAD;
    line.c_iflag |= IGNBRK;
    line.c_cc[VMIN] = 1; // a read that finds nothing must look different from a hung up line
    line.c_cc[VTIME] = 0;
    cfsetispeed(&line, pRate->uCode);
    cfsetospeed(&line, pRate->uCode);
    if (tcsetattr(port->Descriptor(), TCSANOW, &line) == -1)
        return FailWithErrno();
    // It succeeds when any of the changes could be made.
    termios set = {};
    if (tcgetattr(port->Descriptor(), &set) == -1)
        return FailWithErrno();
    if (cfgetospeed(&set) != pRate->uCode)
        return FailWith(EINVAL);
    HoldModemLines(port->Descriptor(), *pSettings);
    return TRUE;
}
