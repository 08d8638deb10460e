// The library as a client of the yardstick: the same elements, command line and result line as its other clients, so that its
// runner compares them in one run.
//
// `sync`: blocking ASN.1 messages that go the whole road: message adapter, correlation, connector, answer, response thread, the
// caller's wake-up. `window`: asynchronous ones, whose callback sends the next. `idle`: one request an opening. Over TCP, or
// with --ca FILE over TLS.
// The log goes to a file at the default level, the hex trace is off unless --trace 1 is given.
#include "Yardstick.h"

#include <tarnadapterframe/tarn_ssl.h>
#include <tarnadapterframe/tarnadapterframe.h>
#include <tarnadapterframe/tarnbaseutil.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

namespace {

using yardstick::Mine;
using yardstick::NowNs;
using yardstick::Phase;

constexpr std::uint32_t PROTOCOL = 70;
constexpr int GROUP = 1;

yardstick::Options g_Options;
TARN_SSL_Option g_SslOption; // with --ca

std::uint32_t Number(const unsigned char* pBytes)
{
    std::uint32_t ul = 0;
    std::memcpy(&ul, pBytes, sizeof(ul));
    return ntohl(ul);
}

bool IsPayload(const unsigned char* pBytes, std::size_t uLength, std::uint32_t ulSerial,
               std::size_t uExpected)
{
    return uLength == uExpected && std::memcmp(pBytes, yardstick::PayloadOf(ulSerial), uLength) == 0;
}

class Request;

/// One element. Counts what was asked in the present opening, so that a break knows what is lost.
class Element : public TarnConnector
{
public:
    explicit Element(int iTarget)
        : TarnConnector(g_Options.strCaFile.empty() ? TCP_TYPE : TCP_SSL_TYPE)
        , m_iTarget(iTarget)
    {
        std::uint32_t ulIP = INADDR_LOOPBACK;
        auto usPort = static_cast<std::uint16_t>(g_Options.iPort + iTarget % g_Options.nPorts);
        std::vector<void*> parameters = {&ulIP, &usPort};
        if (!g_Options.strCaFile.empty())
            parameters.push_back(&g_SslOption);
        SetGroupID(GROUP);
        SetTargetID(static_cast<unsigned long>(iTarget));
        SetAdapterProtocolID(PROTOCOL);
        InitCommuPara(parameters);
    }
    int OnConnectOK() override;
    int OnSockBreak() override;

    int Target() const { return m_iTarget; }
    std::uint32_t Opening() const { return m_ulOpening.load(); }
    void Asked() { ++m_nUnderWay; }
    /// An answer, or the end of its time, has come. False: its opening is over, and it was lost with that.
    bool Ended(std::uint32_t ulOpening)
    {
        if (ulOpening != Opening())
            return false;
        --m_nUnderWay;
        return true;
    }
    void CountOpen(bool bOpen)
    {
        if (m_bCounted.exchange(bOpen) != bOpen)
            yardstick::g_nOpen += bOpen ? 1 : -1;
    }

private:
    const int m_iTarget;
    std::atomic<std::uint32_t> m_ulOpening{0};
    std::atomic<int> m_nUnderWay{0};
    std::atomic<bool> m_bCounted{false};
};

std::vector<std::unique_ptr<Element>> g_Elements;

class Request : public TarnAsn1Message
{
public:
    static inline std::vector<TEMessageAdapter*> s_Adapters;

    explicit Request(Element& element)
        : m_Element(element)
        , m_ulOpening(element.Opening())
    {
        TarnAsn1Target target(element.Target());
        target.SetProtocolID(PROTOCOL);
        SetTargetId(target);
        SetTimeOut(std::max(1, (g_Options.iTimeoutMs + 999) / 1000));
    }
    std::vector<TEMessageAdapter*>* GetMessageAdapterVec() override { return &s_Adapters; }

    Element& Addressee() const { return m_Element; }
    std::uint32_t Opening() const { return m_ulOpening; }
    std::uint64_t Sent() const { return m_uSent; }

    bool bGood = false; // of the answer: its payload is the serial's

private:
    Element& m_Element;
    const std::uint32_t m_ulOpening;
    const std::uint64_t m_uSent = NowNs();
};

void Ask(Element& element);

/// The callback of asynchronous requests.
int OnAnswer(TEMessage* pMessage, void* /*pUser1*/, void* /*pUser2*/)
{
    const auto& request = *static_cast<Request*>(pMessage);
    Element& element = request.Addressee();
    if (!element.Ended(request.Opening()))
        return 0;
    if (g_Options.IsIdle())
        element.CountOpen(true);
    if (!request.bGood)
        Mine().bad.Add();
    Mine().Done(NowNs() - request.Sent());
    if (!g_Options.IsIdle() && yardstick::g_ePhase.load(std::memory_order_relaxed) != Phase::STOP)
        Ask(element);
    return 0;
}

void Ask(Element& element)
{
    auto* pRequest = new Request(element);
    new AsynCallBack(pRequest, &OnAnswer, nullptr, nullptr);
    const std::uint32_t ulOpening = pRequest->Opening();
    element.Asked();
    if (pRequest->HandleMessage() != 0)
        element.Ended(ulOpening);
}

void AskAndWait(Element& element)
{
    while (yardstick::g_ePhase.load(std::memory_order_relaxed) != Phase::STOP)
    {
        Request request(element);
        element.Asked();
        const std::uint64_t uSent = NowNs();
        const int iResult = request.SyncHandleMessage(request.GetTimeOut());
        const bool bPresent = element.Ended(request.Opening());
        if (iResult == 0)
        {
            if (!request.bGood)
                Mine().bad.Add();
            else
                Mine().Done(NowNs() - uSent);
        }
        else if (iResult == static_cast<int>(ADAPTER_ERR_TIMEOUT) && bPresent)
            Mine().timeouts.Add();
        else
            yardstick::SleepNs(1'000'000); // not connected
    }
}

int Element::OnConnectOK()
{
    ++m_ulOpening;
    if (!g_Options.IsIdle())
        CountOpen(true);
    const int nRequests = g_Options.IsSync() ? 0 : g_Options.IsIdle() ? 1 : g_Options.nWindow;
    for (int i = 0; i < nRequests; ++i)
        Ask(*this);
    return 0;
}

int Element::OnSockBreak()
{
    ++m_ulOpening;
    CountOpen(false);
    Mine().reconnects.Add();
    Mine().lost.Add(static_cast<std::uint64_t>(std::max(0, m_nUnderWay.exchange(0))));
    return 0;
}

/// Brings an element's answer to the request, on a response thread.
class Answer : public TEMessage
{
public:
    Answer(TarnProtocolAdapter* pAdapter, std::uint32_t ulSerial, const unsigned char* pPayload,
           std::size_t uLength)
        : TEMessage(pAdapter, RESPONSE_MESSAGE)
        , m_strPayload(reinterpret_cast<const char*>(pPayload), uLength)
    {
        m_ulSerial = ulSerial;
    }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
    int HandleMessage() override
    {
        const bool bGood = IsPayload(reinterpret_cast<const unsigned char*>(m_strPayload.data()),
                                     m_strPayload.size(), m_ulSerial, g_Options.Payload());
        TEAdapterManager* pManager = TEAdapterManager::Instance();
        Request* pSource = nullptr;
        {
            const TEMsgMapGuard guard;
            bool bFound = false;
            const auto sink = pManager->FindSrcMsgUnit({m_ulSerial, PROTOCOL}, bFound);
            if (bFound)
            {
                const auto record = pManager->FindSrcMsgInfo(sink->second, bFound);
                pSource = bFound ? static_cast<Request*>(record->second.pSource) : nullptr;
            }
            if (pSource == nullptr)
            {
                Mine().late.Add();
                return 0;
            }
            pManager->UnRegisterSourceMessage(pSource);
            pSource->bGood = bGood;
            pSource->SetResult(0);
            pSource->SetType(RESPONSE_MESSAGE);
            if (pSource->GetSyncFlag() != ASYNC_MESSAGE)
            {
                pSource->HandleMessage();
                return 0;
            }
        }
        pSource->HandleMessage();
        return 0;
    }

private:
    const std::string m_strPayload;
};

class Protocol : public TarnProtocolAdapter
{
public:
    Protocol()
        : TarnProtocolAdapter(PROTOCOL)
    {}
    int CheckMessageValid(void* /*pHandle*/, std::vector<unsigned char>& data) override
    {
        if (data.size() < 4)
            return 0;
        const std::uint32_t ulRest = Number(data.data());
        if (ulRest < 4 || ulRest > 4 + yardstick::MAX_PAYLOAD)
            return -1;
        if (data.size() < ulRest + 4)
            return 0;
        const auto iLength = static_cast<int>(ulRest + 4);
        const std::uint32_t ulSerial = Number(data.data() + 4);
        const unsigned char* pPayload = data.data() + yardstick::HEAD_BYTES;
        const std::size_t uPayload = ulRest - 4;
        // Only who logs received messages pays for the text; the sent ones are the connection's to trace.
        TraceHexData(reinterpret_cast<const char*>(data.data()), iLength, TARN_TRACE_ASYNC_IO_RECV, 0);
        if (ulSerial == 0)
        {
            Mine().reports.Add();
            if (!IsPayload(pPayload, uPayload, 0, yardstick::REPORT_BYTES))
                Mine().bad.Add();
        }
        else
            TEAsyncIOMgr::Instance()->AddResponse(
                std::make_unique<Answer>(this, ulSerial, pPayload, uPayload));
        return iLength;
    }
};

/// What is sent for a request.
class Sink : public TEMessage
{
public:
    explicit Sink(TarnProtocolAdapter* pAdapter)
        : TEMessage(pAdapter)
    {
        RequireSerial();
    }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
};

class Translator : public TEMessageAdapter
{
public:
    explicit Translator(TarnProtocolAdapter* pSink)
        : TEMessageAdapter(TarnAsn1ProtocolAdapter::Instance(), pSink)
    {}
    bool CanTranslate(TEMessage* /*pMessage*/) override { return true; }
    int HandleMessage(TEMessage* pMessage) override
    {
        auto* pRequest = static_cast<Request*>(pMessage);
        Sink sink(SinkProtocolInstance());
        const std::uint32_t ulSerial = sink.GetMessageSerial();
        thread_local std::vector<char> frame;
        frame.resize(yardstick::HEAD_BYTES + g_Options.Payload());
        const std::uint32_t head[] = {htonl(static_cast<std::uint32_t>(4 + g_Options.Payload())),
                                      htonl(ulSerial)};
        std::memcpy(frame.data(), head, sizeof(head));
        if (g_Options.nPayload > 0)
            std::memcpy(frame.data() + sizeof(head), yardstick::PayloadOf(ulSerial), g_Options.Payload());
        TEAdapterManager* pManager = TEAdapterManager::Instance();
        const TEMessageUnit source = {pRequest->GetMessageSerial(),
                                      SrcProtocolInstance()->GetProtocolAdapterID()};
        const auto ulTarget = static_cast<unsigned long>(pRequest->GetTargetId().GetNeId());
        {
            const TEMsgMapGuard guard;
            RegisterPrivateMessage(pRequest, this, nullptr, pRequest->GetTimeOut());
            RegisterMessage(pRequest, &sink);
        }
        {
            const TarnConnectorGuard connector(
                TarnConnectorMgr::Instance()->GetConnectorByID(GROUP, ulTarget));
            if (connector && connector->SendToOutBuffer(frame.data(), static_cast<int>(frame.size())) == 0)
                return 0;
        }
        const TEMsgMapGuard guard;
        bool bThere = false; // it may have expired meanwhile, and be gone
        pManager->FindSrcMsgInfo(source, bThere);
        if (bThere)
            pManager->UnRegisterSourceMessage(pRequest);
        return bThere ? -1 : 0;
    }
    int HandleAsyncError(TEMessage* pSource, void* pUserData, EAdapterError eError) override
    {
        auto* pRequest = static_cast<Request*>(pSource);
        if (pRequest->GetSyncFlag() != ASYNC_MESSAGE)
            return 0; // its caller keeps its own time
        Element& element = pRequest->Addressee();
        const bool bPresent = element.Ended(pRequest->Opening());
        if (bPresent)
            Mine().timeouts.Add();
        TEMessageAdapter::HandleAsyncError(pSource, pUserData, eError);
        if (bPresent && g_Options.strMode == "window")
            Ask(element);
        return 0;
    }
};

/// The host's configuration and log, in a directory that is deleted with it.
class Host
{
public:
    Host()
    {
        char szPath[] = "/tmp/yardstick.XXXXXX";
        if (mkdtemp(szPath) == nullptr)
        {
            std::perror("mkdtemp");
            std::exit(1);
        }
        m_Directory = szPath;
        const std::filesystem::path settings = m_Directory / "tarnadapter.ini";
        std::ofstream(settings) << "[tarnadapter]\nnConnectSleep=" << g_Options.iReconnectMs / 1000
                                << "\nbEnableAdapterLog=" << g_Options.bTrace
                                << "\nnConnectThreadNum=" << g_Options.nConnectThreads
                                << "\nnAsyncIOThreadNum=" << g_Options.nIOThreads
                                << "\nnAppProcessThreadNum=" << g_Options.nResponseThreads << "\n[log]\nfile="
                                << (g_Options.strLog.empty() ? (m_Directory / "log").string()
                                                             : g_Options.strLog)
                                << "\nlevel=" << g_Options.iLogLevel << "\n";
        setenv("TARN_CFG_FILE", settings.c_str(), 1);
    }
    void Delete()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_Directory, ignored);
    }

private:
    std::filesystem::path m_Directory;
};

} // namespace

int main(int argc, char** argv)
{
    g_Options = yardstick::ParseOptions(argc, argv);
    alarm(static_cast<unsigned>(g_Options.seconds + g_Options.warmup) + 90U); // never outlives the run
    Host host;
    auto* pProtocol = new Protocol; // the library deletes it
    if (tarnadapter::Init() != 0 ||
        TEAdapterManager::Instance()->RegisterProtocolAdapter(PROTOCOL, pProtocol, true) != 0)
    {
        std::fprintf(stderr, "the library does not start\n");
        return 1;
    }
    if (!g_Options.strCaFile.empty() &&
        g_SslOption.set_authorities(g_Options.strCaFile.c_str(), nullptr) != 0)
    {
        std::fprintf(stderr, "%s: no authority\n", g_Options.strCaFile.c_str());
        return 1;
    }
    Translator translator(pProtocol);
    Request::s_Adapters = {&translator};
    for (int i = 0; i < g_Options.nConnections; ++i)
        g_Elements.push_back(std::make_unique<Element>(i));
    for (const auto& pElement : g_Elements)
        TarnConnectorMgr::Instance()->RegisterConnector(pElement.get(), false, 0);
    if (g_Options.IsSync())
    {
        while (yardstick::g_nOpen < g_Options.nConnections)
            yardstick::SleepNs(200'000);
        for (int i = 0; i < g_Options.nCallers; ++i)
            std::thread([i] {
                AskAndWait(*g_Elements[static_cast<std::size_t>(i % g_Options.nConnections)]);
            }).detach();
    }
    const bool bErrors = yardstick::MeasureAndPrint("tarn", g_Options) != 0;
    host.Delete();
    _exit(bErrors ? 1 : 0); // without unwinding what is at work
}
