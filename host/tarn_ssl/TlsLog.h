#ifndef TARN_HOST_TARN_SSL_TLSLOG_H
#define TARN_HOST_TARN_SSL_TLSLOG_H

#include "tarnadapterframe/tarnbaseutil.h"

#include <string>

/// Logs a line under the tag "tarn_ssl". Leaves errno alone.
void TlsLog(TarnLogLevel eLevel, const std::string& strText);

/// Why OpenSSL's last operation on this thread has failed, in its words; empties its error queue. Without an entry
/// there the text of errno.
std::string TakeOpenSslReason();

#endif
