#include "SnmpMessages.h"

std::vector<TEMessageAdapter*> SnmpMessage::s_Adapters;

// The log shows these names. CancelMessage wants TarnAsn1Message's record among the bases.
TarnAdapterRuntimeClass SnmpMessage::classSnmpMessage = {
    "SnmpMessage", static_cast<int>(sizeof(SnmpMessage)),  0xFFFF,
    nullptr,       &TarnAsn1Message::classTarnAsn1Message, nullptr};
TarnAdapterRuntimeClass SnmpGet::classSnmpGet = {
    "SnmpGet", static_cast<int>(sizeof(SnmpGet)), 0xFFFF, nullptr, &classSnmpMessage, nullptr};
TarnAdapterRuntimeClass SnmpGetNext::classSnmpGetNext = {
    "SnmpGetNext", static_cast<int>(sizeof(SnmpGetNext)), 0xFFFF, nullptr, &classSnmpMessage, nullptr};
TarnAdapterRuntimeClass SnmpGetBulk::classSnmpGetBulk = {
    "SnmpGetBulk", static_cast<int>(sizeof(SnmpGetBulk)), 0xFFFF, nullptr, &classSnmpMessage, nullptr};
TarnAdapterRuntimeClass SnmpSet::classSnmpSet = {
    "SnmpSet", static_cast<int>(sizeof(SnmpSet)), 0xFFFF, nullptr, &classSnmpMessage, nullptr};

static const TARN_ADAPTER_CLASSINIT s_initMessage(&SnmpMessage::classSnmpMessage);
static const TARN_ADAPTER_CLASSINIT s_initGet(&SnmpGet::classSnmpGet);
static const TARN_ADAPTER_CLASSINIT s_initGetNext(&SnmpGetNext::classSnmpGetNext);
static const TARN_ADAPTER_CLASSINIT s_initGetBulk(&SnmpGetBulk::classSnmpGetBulk);
static const TARN_ADAPTER_CLASSINIT s_initSet(&SnmpSet::classSnmpSet);

SnmpMessage::SnmpMessage(int iNeId, SnmpPdu ePdu, const std::vector<SnmpOid>& names)
{
    TarnAsn1Target target(iNeId);
    target.SetProtocolID(SNMP_PROTOCOL);
    SetTargetId(target);
    m_Question.ePdu = ePdu;
    for (const SnmpOid& name : names)
        m_Question.bindings.push_back({name, {}});
}

SnmpGet::SnmpGet(int iNeId, const std::vector<SnmpOid>& names)
    : SnmpMessage(iNeId, SnmpPdu::GET, names)
{}

SnmpGetNext::SnmpGetNext(int iNeId, const std::vector<SnmpOid>& names)
    : SnmpMessage(iNeId, SnmpPdu::GET_NEXT, names)
{}

SnmpGetBulk::SnmpGetBulk(int iNeId, const SnmpOid& name, int iMaxRepetitions)
    : SnmpMessage(iNeId, SnmpPdu::GET_BULK, {name})
{
    m_Question.iErrorIndex = iMaxRepetitions;
}

SnmpSet::SnmpSet(int iNeId, const std::vector<SnmpVarBind>& values)
    : SnmpMessage(iNeId, SnmpPdu::SET, {})
{
    m_Question.bindings = values;
}
