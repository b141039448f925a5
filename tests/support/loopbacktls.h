#pragma once

#include <QString>

// The self-signed certificate for 127.0.0.1 and its key that LoopbackServer::listenTls() serves in
// tests; the program never trusts it unless a test adds it.
inline QString loopbackCertificateFile()
{
    return QStringLiteral(VERBOLT_SUPPORT_DATA "/loopback.crt");
}

inline QString loopbackKeyFile()
{
    return QStringLiteral(VERBOLT_SUPPORT_DATA "/loopback.key");
}
