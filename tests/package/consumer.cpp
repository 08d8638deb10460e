// A host process that knows only the installed package: it installs its log, starts the library, registers an
// adapter that it derives itself, frames with it and stops. Exit code 0 when every step did what the headers
// say.

#include <tarnadapterframe/tarn_ssl.h>
#include <tarnadapterframe/tarnadapterframe.h>
#include <tarnadapterframe/tarnbaseutil.h>
#include <tarnadapterframe/tarntaskmgr.h>

#include <atomic>
#include <cstdio>
#include <string>

namespace {

constexpr std::uint32_t PROTOCOL_ID = 7;

std::atomic<int> g_iLines{0};
bool g_bAdapterDeleted = false;

bool CountLine(const std::string&, TarnLogLevel, const char*, const AsnType*, bool, bool)
{
    ++g_iLines;
    return true;
}

class LineAdapter : public TarnProtocolAdapter
{
public:
    LineAdapter()
        : TarnProtocolAdapter(PROTOCOL_ID)
    {}
    ~LineAdapter() override { g_bAdapterDeleted = true; }

    int CheckMessageValid(void*, std::vector<unsigned char>& data) override
    {
        for (std::size_t i = 0; i < data.size(); ++i)
        {
            if (data[i] == '\n')
                return static_cast<int>(i + 1);
        }
        return 0;
    }
};

bool Check(bool bHolds, const char* pszWhat)
{
    if (!bHolds)
        std::fprintf(stderr, "failed: %s\n", pszWhat);
    return bHolds;
}

} // namespace

int main()
{
    TarnInstallLogSink(&CountLine);
    bool bGood = Check(tarnadapter::Init() == 0, "Init");
    bGood = Check(!TarnAppIsExit() && !TarnIsExit(), "exit flags") && bGood;

    TARN_SSL_Option option;
    bGood = Check(option.enable_auth_peer() && option.set_version("SSLv3") == -1, "TLS option") && bGood;

    TEAdapterManager* pManager = TEAdapterManager::Instance();
    bGood = Check(pManager->RegisterProtocolAdapter(PROTOCOL_ID, new LineAdapter, false) == 0, "register") &&
            bGood;
    std::vector<unsigned char> data = {'o', 'k', '\n', 'x'};
    bGood = Check(pManager->CheckMessageValid(nullptr, data, PROTOCOL_ID) == 3, "framing") && bGood;
    TraceHexData("ab", 2, TARN_TRACE_NE_MML, 0);
    tarnadapter::Fini();

    bGood = Check(g_bAdapterDeleted, "adapter deleted by Fini") && bGood;
    bGood = Check(g_iLines > 0, "log lines") && bGood;
    return bGood ? 0 : 1;
}
