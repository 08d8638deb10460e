// The reference of the TLS yardstick: what somebody would write by hand for this one task. One loop on one thread, epoll and
// OpenSSL, no application threads: an answer is checked and the next request made in the loop that has received it, and what
// one wake-up has made goes out together. A caller of `sync` is a continuation in the loop, not a thread.
//
// Command line and result line are Yardstick.h's; modes sync and window, and --ca FILE with what the element's certificate is
// verified by, for 127.0.0.1.
#include "TlsChannel.h"

#include <openssl/x509v3.h>

#include <csignal>
#include <thread>

namespace {

using yardstick::Mine;
using yardstick::NowNs;
using yardstick::Phase;
using yardstick::TlsChannel;

yardstick::Options g_Options;

bool IsPayload(const char* pFrame, std::size_t uBytes, std::size_t uExpected)
{
    return uBytes == yardstick::HEAD_BYTES + uExpected &&
           std::memcmp(pFrame + yardstick::HEAD_BYTES, yardstick::PayloadOf(yardstick::NumberAt(pFrame + 4)),
                       uExpected) == 0;
}

/// A request that may be under way. A serial finds its slot by the remainder.
struct Slot
{
    std::uint32_t ulSerial = 0;
    std::uint64_t uSent = 0; // 0: none is under way
};

struct Element
{
    int iTarget = 0;
    std::vector<Slot> slots;
    std::unique_ptr<TlsChannel> pChannel; // null: to be opened
};

class Loop
{
public:
    Loop()
        : m_pContext(yardstick::MakeContext(TLS_client_method()))
        , m_iEpoll(epoll_create1(EPOLL_CLOEXEC))
        , m_Elements(static_cast<std::size_t>(g_Options.nConnections))
    {
        if (SSL_CTX_load_verify_file(m_pContext.get(), g_Options.strCaFile.c_str()) != 1)
        {
            ERR_print_errors_fp(stderr);
            std::exit(1);
        }
        SSL_CTX_set_verify(m_pContext.get(), SSL_VERIFY_PEER, nullptr);
        const int nCallersOfAll = g_Options.nCallers / g_Options.nConnections;
        const int nWithOneMore = g_Options.nCallers % g_Options.nConnections;
        for (int i = 0; i < g_Options.nConnections; ++i)
        {
            Element& element = m_Elements[static_cast<std::size_t>(i)];
            element.iTarget = i;
            const int nSlots =
                g_Options.IsSync() ? nCallersOfAll + (i < nWithOneMore ? 1 : 0) : g_Options.nWindow;
            for (int iSlot = 0; iSlot < nSlots; ++iSlot)
                element.slots.push_back({static_cast<std::uint32_t>(iSlot), 0});
        }
    }

    [[noreturn]] void Run()
    {
        constexpr std::uint64_t SWEEP_NS = 100'000'000;
        constexpr int SWEEP_MS = 100;
        for (Element& element : m_Elements)
            Open(element);
        epoll_event events[512];
        std::uint64_t uNextSweep = NowNs() + SWEEP_NS;
        for (;;)
        {
            const int nEvents =
                epoll_wait(m_iEpoll, events, std::size(events), m_Again.empty() ? SWEEP_MS : 0);
            std::vector<Element*> again;
            again.swap(m_Again);
            for (int i = 0; i < nEvents; ++i)
                Serve(*m_BySocket[static_cast<std::size_t>(events[i].data.fd)]);
            for (Element* pElement : again)
                Serve(*pElement);
            if (nEvents == std::size(events))
                continue;
            const std::uint64_t uNow = NowNs();
            if (uNow < uNextSweep)
                continue;
            Sweep(uNow);
            uNextSweep = uNow + SWEEP_NS;
        }
    }

private:
    void Open(Element& element)
    {
        const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_in address = yardstick::Loopback(g_Options.iPort + element.iTarget % g_Options.nPorts);
        if (connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
            errno != EINPROGRESS)
        {
            close(iSocket); // tried again by the next sweep
            return;
        }
        element.pChannel = std::make_unique<TlsChannel>(m_pContext.get(), iSocket, m_iEpoll);
        SSL* pSsl = element.pChannel->Ssl();
        SSL_set_connect_state(pSsl);
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(pSsl), "127.0.0.1");
        const auto uPlace = static_cast<std::size_t>(iSocket);
        m_BySocket.resize(std::max(m_BySocket.size(), uPlace + 1));
        m_BySocket[uPlace] = &element;
    }

    void Serve(Element& element)
    {
        if (element.pChannel == nullptr)
            return; // broken meanwhile
        TlsChannel& channel = *element.pChannel;
        if (channel.Now() == TlsChannel::State::HANDSHAKE)
        {
            const TlsChannel::State eState = channel.Handshake();
            if (eState == TlsChannel::State::FAILED)
                Break(element);
            if (eState != TlsChannel::State::OPEN)
                return;
            ++yardstick::g_nOpen;
            const std::uint64_t uNow = NowNs();
            for (Slot& slot : element.slots)
                Ask(element, slot, uNow);
            // Something may have come with the end of the handshake.
        }
        const std::uint64_t uNow = NowNs();
        const TlsChannel::Input eInput = channel.Receive(
            [&](const char* pFrame, std::size_t uBytes) { NoteAnswer(element, pFrame, uBytes, uNow); });
        if (eInput == TlsChannel::Input::BROKEN || !channel.Flush())
            Break(element);
        else if (eInput == TlsChannel::Input::MORE)
            m_Again.push_back(&element);
    }

    void Break(Element& element)
    {
        if (element.pChannel->Now() == TlsChannel::State::OPEN)
        {
            --yardstick::g_nOpen;
            Mine().reconnects.Add();
        }
        else
            ERR_print_errors_fp(stderr);
        element.pChannel = nullptr; // opened again by the next sweep
        for (Slot& slot : element.slots)
        {
            if (slot.uSent != 0)
                Mine().lost.Add();
            slot.uSent = 0;
        }
    }

    static void Ask(Element& element, Slot& slot, std::uint64_t uNow)
    {
        const auto nSlots = static_cast<std::uint32_t>(element.slots.size());
        slot.ulSerial += nSlots;
        if (slot.ulSerial < nSlots)
            slot.ulSerial += nSlots; // 0 is for reports
        slot.uSent = uNow;
        std::vector<char>& output = element.pChannel->Output();
        const std::uint32_t head[] = {htonl(static_cast<std::uint32_t>(4 + g_Options.Payload())),
                                      htonl(slot.ulSerial)};
        const auto* pHead = reinterpret_cast<const char*>(head);
        const auto* pPayload = reinterpret_cast<const char*>(yardstick::PayloadOf(slot.ulSerial));
        output.insert(output.end(), pHead, pHead + sizeof(head));
        output.insert(output.end(), pPayload, pPayload + g_Options.Payload());
    }

    static void NoteAnswer(Element& element, const char* pFrame, std::size_t uBytes, std::uint64_t uNow)
    {
        yardstick::Figures& figures = Mine();
        const std::uint32_t ulSerial = yardstick::NumberAt(pFrame + 4);
        if (ulSerial == 0)
        {
            figures.reports.Add();
            if (!IsPayload(pFrame, uBytes, yardstick::REPORT_BYTES))
                figures.bad.Add();
            return;
        }
        const std::size_t nSlots = element.slots.size();
        Slot* const pSlot = nSlots != 0 ? &element.slots[ulSerial % nSlots] : nullptr;
        if (pSlot == nullptr || pSlot->ulSerial != ulSerial || pSlot->uSent == 0)
        {
            figures.late.Add();
            return;
        }
        if (IsPayload(pFrame, uBytes, g_Options.Payload()))
            figures.Done(uNow - pSlot->uSent);
        else
            figures.bad.Add();
        pSlot->uSent = 0;
        if (yardstick::g_ePhase.load(std::memory_order_relaxed) != Phase::STOP)
            Ask(element, *pSlot, uNow);
    }

    /// Asks anew for what has not been answered in time, and opens what is broken.
    void Sweep(std::uint64_t uNow)
    {
        const auto uLimit = static_cast<std::uint64_t>(g_Options.iTimeoutMs) * 1'000'000U;
        for (Element& element : m_Elements)
        {
            if (element.pChannel == nullptr)
                Open(element);
            else if (element.pChannel->Now() == TlsChannel::State::OPEN)
            {
                for (Slot& slot : element.slots)
                    if (slot.uSent != 0 && slot.uSent + uLimit < uNow)
                    {
                        Mine().timeouts.Add();
                        Ask(element, slot, uNow);
                    }
                if (!element.pChannel->Flush())
                    Break(element);
            }
        }
    }

    const yardstick::Context m_pContext;
    const int m_iEpoll;
    std::vector<Element> m_Elements;
    std::vector<Element*> m_BySocket; // for the sockets that are open
    std::vector<Element*> m_Again;    // hold bytes that nobody announces
};

} // namespace

int main(int argc, char** argv)
{
    g_Options = yardstick::ParseOptions(argc, argv);
    if (g_Options.IsIdle() || g_Options.strCaFile.empty())
        yardstick::Usage(argv[0]);
    alarm(static_cast<unsigned>(g_Options.seconds + g_Options.warmup) + 90U); // never outlives the run
    std::signal(SIGPIPE, SIG_IGN);                                            // OpenSSL writes
    std::thread([] { (new Loop)->Run(); }).detach();
    const bool bErrors = yardstick::MeasureAndPrint("tls_epoll", g_Options) != 0;
    _exit(bErrors ? 1 : 0); // without unwinding what is at work
}
