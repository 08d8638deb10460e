#ifndef TARN_TESTS_SUPPORT_FRAMEADAPTER_H
#define TARN_TESTS_SUPPORT_FRAMEADAPTER_H

#include "support/Living.h"
#include "support/TestAdapters.h"

#include <cstdint>
#include <functional>
#include <string>

/// A whole frame that an Element has sent; an application thread hands it to the adapter's function.
class FrameMessage : public TEMessage, public Living<FrameMessage>
{
public:
    FrameMessage(TarnProtocolAdapter* pAdapter, std::function<void(FrameMessage&)>& onFrame)
        : TEMessage(pAdapter, RESPONSE_MESSAGE, 60)
        , m_OnFrame(onFrame)
    {}

    EMessageSyncFlag GetSyncFlag() override { return ASYNC_MESSAGE; }
    TEMessageAdapter* GetMessageAdapter() override { return nullptr; }
    int GetCommandCount() override { return 1; }
    int HandleMessage() override;

    ACE_HANDLE handle = ACE_INVALID_HANDLE;
    std::uint32_t ulSerial = 0;
    std::string strPayload;

private:
    std::function<void(FrameMessage&)>& m_OnFrame;
};

/// The protocol adapter of Element's frames: answers go to the response threads, reports to the report
/// threads. Set the functions before there are connections.
class FrameAdapter : public TarnProtocolAdapter
{
public:
    explicit FrameAdapter(std::uint32_t ulProtocolID)
        : TarnProtocolAdapter(ulProtocolID)
    {}

    int CheckMessageValid(void* pHandle, std::vector<unsigned char>& data) override;

    std::function<void(FrameMessage&)> onAnswer; ///< on a response thread
    std::function<void(FrameMessage&)> onReport; ///< on a report thread
    std::function<void(ACE_HANDLE)> onFraming;   ///< on the I/O thread, before each look
};

inline int FrameMessage::HandleMessage()
{
    if (m_OnFrame)
        m_OnFrame(*this);
    return 0;
}

inline int FrameAdapter::CheckMessageValid(void* pHandle, std::vector<unsigned char>& data)
{
    constexpr std::size_t HEAD = 8;
    constexpr std::uint32_t MAX_FRAME = std::uint32_t{32} << 20U;
    const auto handle = static_cast<ACE_HANDLE>(reinterpret_cast<std::intptr_t>(pHandle));
    if (onFraming)
        onFraming(handle);
    const auto number = [&data](std::size_t uOffset) {
        return std::uint32_t{data[uOffset]} << 24U | std::uint32_t{data[uOffset + 1]} << 16U |
               std::uint32_t{data[uOffset + 2]} << 8U | std::uint32_t{data[uOffset + 3]};
    };
    if (data.size() < HEAD)
        return 0;
    const std::uint32_t ulLength = number(0);
    if (ulLength < 4 || ulLength > MAX_FRAME)
        return -1;
    if (data.size() < ulLength + 4)
        return 0;
    const std::uint32_t ulSerial = number(4);
    auto* pMessage = new FrameMessage(this, ulSerial == 0 ? onReport : onAnswer);
    pMessage->handle = handle;
    pMessage->ulSerial = ulSerial;
    pMessage->strPayload.assign(data.begin() + HEAD,
                                data.begin() + static_cast<std::ptrdiff_t>(ulLength + 4));
    TEAsyncIOMgr* pAsyncIOMgr = TEAsyncIOMgr::Instance();
    // Refused only at a stop, and then perhaps deleted already: what is left is found by DeleteLeft.
    if (ulSerial == 0)
        pAsyncIOMgr->AddTERptMessageData(pMessage);
    else
        pAsyncIOMgr->AddTERspMessageData(pMessage);
    return static_cast<int>(ulLength + 4);
}

#endif
