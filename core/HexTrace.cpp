#include "tarnadapterframe/TraceHexData.h"

#include "core/ApplicationCall.h"
#include "core/LogArguments.h"
#include "core/Settings.h"
#include "tarnadapterframe/TarnAdapterTrace.h"

#include <ace/Thread.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

namespace {

constexpr std::size_t TRACE_BUFFER_SIZE = 4500;
constexpr std::size_t OUTPUT_BUFFER_SIZE = 800;
constexpr int MAX_TEXT_LENGTH = 4096;
constexpr int BYTES_PER_LINE = 16;
// A rendering stops at the first line end at or after this many bytes.
constexpr int MAX_TRACED_BYTES = 1025;
constexpr int MAX_OUTPUT_BYTES = 101;
constexpr int TL1_PREFIX_LENGTH = 4;

constexpr char MORE_DATA[] = " more data not print.";
constexpr char MORE_TEXT[] = "\n more data not print \n";

// A single pointer, stored and read as a whole; no lock.
std::atomic<TarnTraceHexDataCBFunc> g_pfnTraceCallback{nullptr};

// Text of bounded length in a buffer on the stack; what does not fit is left out.
template <std::size_t SIZE>
class TextBuffer
{
public:
    TextBuffer() { m_szText[0] = '\0'; }

    void Append(std::string_view text)
    {
        text = text.substr(0, SIZE - 1 - m_Length);
        std::copy(text.begin(), text.end(), m_szText + m_Length);
        m_Length += text.size();
        m_szText[m_Length] = '\0';
    }

    // In lower-case digits, with blanks before them up to a width.
    void AppendHex(std::uint32_t ulNumber, std::size_t width)
    {
        char digits[2 * sizeof(ulNumber)];
        const auto length =
            static_cast<std::size_t>(std::to_chars(digits, std::end(digits), ulNumber, 16).ptr - digits);
        if (length < width)
            Append(std::string_view("        ", width - length));
        Append(std::string_view(digits, length));
    }

    // Two lower-case digits and a blank for each byte, a line feed after every 16th; stops at the first line
    // end at or after iStopAt bytes when bytes remain, and says so. The callers' limits keep it inside the
    // buffer.
    void AppendHexLines(const char* pData, int iLength, int iStopAt)
    {
        static constexpr char DIGITS[] = "0123456789abcdef";
        char* pOut = m_szText + m_Length;
        int iShown = 0;
        bool bCut = false;
        while (iShown < iLength && !bCut)
        {
            const int iLineEnd = std::min(iLength, iShown + BYTES_PER_LINE);
            for (; iShown < iLineEnd; ++iShown)
            {
                const auto byte = static_cast<unsigned char>(pData[iShown]);
                *pOut++ = DIGITS[byte >> 4];
                *pOut++ = DIGITS[byte & 0x0F];
                *pOut++ = ' ';
            }
            if (iShown % BYTES_PER_LINE == 0)
            {
                *pOut++ = '\n';
                bCut = iShown >= iStopAt && iShown < iLength;
            }
        }
        m_Length = static_cast<std::size_t>(pOut - m_szText);
        if (bCut)
            Append(MORE_DATA);
        Append("\n");
    }

    const char* c_str() const { return m_szText; }

private:
    std::size_t m_Length = 0;
    char m_szText[SIZE];
};

using TraceText = TextBuffer<TRACE_BUFFER_SIZE>;

// 3 characters a byte, a line feed every 16, and room for the header and the note.
static_assert((MAX_TRACED_BYTES + BYTES_PER_LINE) * 3 + MAX_TRACED_BYTES / BYTES_PER_LINE + 200 <
              TRACE_BUFFER_SIZE);
static_assert((MAX_OUTPUT_BYTES + BYTES_PER_LINE) * 3 + MAX_OUTPUT_BYTES / BYTES_PER_LINE + 100 <
              OUTPUT_BUFFER_SIZE);

void AppendHeader(TraceText& text, ETarnAdpterTraceType eTraceType, std::uint32_t ulCallerThreadId)
{
    constexpr std::size_t THREAD_ID_WIDTH = 4;
    text.Append("Thread:");
    text.AppendHex(Low32(ACE_Thread::self()), THREAD_ID_WIDTH);
    switch (eTraceType)
    {
    case TARN_TRACE_SEND_TO_NE:
        text.Append(", Send to ne (from thread 0x");
        text.AppendHex(ulCallerThreadId, 0);
        text.Append(")>>>... \n");
        break;
    case TARN_TRACE_ASYNC_IO_RECV:
        text.Append(", AsyncIO RecvData <<<... \n");
        break;
    case TARN_TRACE_NE_MML:
        text.Append(", Ne mml <<<... \n");
        break;
    case TARN_TRACE_TL1_RECV:
        text.Append(", Recv from Ne TL1 Hex <<<... \n");
        break;
    case TARN_TRACE_TL1_SEND:
        text.Append(", Send to Ne TL1 Hex <<<... \n");
        break;
    default:
        text.Append(", Other Data... \n");
        break;
    }
}

bool IsTl1(ETarnAdpterTraceType eTraceType)
{
    return eTraceType == TARN_TRACE_TL1_RECV || eTraceType == TARN_TRACE_TL1_SEND;
}

bool IsText(ETarnAdpterTraceType eTraceType)
{
    return eTraceType == TARN_TRACE_NE_MML || IsTl1(eTraceType);
}

void AppendTextData(TraceText& text, const char* pData, int iLength, ETarnAdpterTraceType eTraceType)
{
    const int iLimit = std::min(Settings().nTraceQxDataMaxLength, MAX_TEXT_LENGTH);
    const bool bCut = iLength > iLimit;
    const int iSkipped = IsTl1(eTraceType) ? TL1_PREFIX_LENGTH : 0;
    const int iShown = (bCut ? iLimit : iLength) - iSkipped;
    if (iShown > 0)
    {
        // The data counts as a text and ends at its first zero byte.
        const char* pText = pData + iSkipped;
        text.Append(std::string_view(pText, ::strnlen(pText, static_cast<std::size_t>(iShown))));
    }
    text.Append("\n");
    if (bCut)
        text.Append(MORE_TEXT);
}

} // namespace

void TraceHexData(const char* pData, int iLength, ETarnAdpterTraceType eTraceType, std::uint32_t ulThreadId)
{
    if (const TarnTraceHexDataCBFunc pfnCallback = g_pfnTraceCallback.load(std::memory_order_acquire))
    {
        CallApplication("trace callback", "TraceHexData",
                        [&] { pfnCallback(pData, iLength, static_cast<int>(eTraceType), ulThreadId); });
        return;
    }
    const TarnSettings& settings = Settings();
    if (!settings.bEnableAdapterLog && !settings.bEnableAdapterPrint)
        return;
    if (pData == nullptr || iLength < 1)
        return;
    if (IsTl1(eTraceType) && iLength <= TL1_PREFIX_LENGTH)
        return;

    TraceText text;
    AppendHeader(text, eTraceType, ulThreadId);
    if (IsText(eTraceType))
        AppendTextData(text, pData, iLength, eTraceType);
    else
        text.AppendHexLines(pData, iLength, std::min(settings.nTraceQxDataMaxLength, MAX_TRACED_BYTES));

    if (settings.bEnableAdapterLog)
        TarnAdapterTrace(3, text.c_str(), false, true);
    if (settings.bEnableAdapterPrint)
        TarnAdapterTrace(3, text.c_str(), true, false);
}

TarnTraceHexDataCBFunc RegisterTraceHexDataCBFunc(TarnTraceHexDataCBFunc pFunc)
{
    const TarnTraceHexDataCBFunc pfnOld = g_pfnTraceCallback.exchange(pFunc, std::memory_order_acq_rel);
    if (pFunc == nullptr && pfnOld == nullptr)
        TarnAdapterFrmtTrace(1, "RegisterTraceHexDataCBFunc,NULL==pFunc\n");
    else if (pFunc == nullptr)
        TarnAdapterFrmtTrace(1, "RegisterTraceHexDataCBFunc,you want unregister TraceFunc(0x%x)\n",
                             Low32(pfnOld));
    else if (pfnOld == nullptr)
        TarnAdapterFrmtTrace(1, "RegisterTraceHexDataCBFunc,register TraceFunc(0x%x)\n", Low32(pFunc));
    else
        TarnAdapterFrmtTrace(
            1, "RegisterTraceHexDataCBFunc,replace TraceFunc(0x%x),the prevenient TraceFunc(0x%x)\n",
            Low32(pFunc), Low32(pfnOld));
    return pFunc;
}

std::string OutputBuffer(const char* pData, int iLength)
{
    if (pData == nullptr)
        return {};
    TextBuffer<OUTPUT_BUFFER_SIZE> text;
    text.AppendHexLines(pData, iLength, MAX_OUTPUT_BYTES);
    return WithMemory("OutputBuffer", std::string(), [&] { return std::string(text.c_str()); });
}
