#ifndef TARN_HOST_TARN_SSL_OPTIONSTATE_H
#define TARN_HOST_TARN_SSL_OPTIONSTATE_H

#include "TlsContext.h"
#include "tarnadapterframe/tarn_ssl.h"

#include <string>

bool IsIpAddress(const std::string& strName);

struct TARN_SSL_Option::State
{
    int Change(const TlsSettings& newSettings);

    bool bSsl = true;
    bool bAuthPeer = true;
    bool bCheckName = true;
    bool bSessionReuse = true;
    bool bPortAdapt = false;
    int iSessionTimeout = 300;
    std::string strPeerName;
    TlsSettings settings;
    TlsContext pContext; // of the settings; null until it is needed
};

#endif
