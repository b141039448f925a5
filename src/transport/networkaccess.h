#pragma once

#include "transport/chatservice.h"

class QNetworkAccessManager;
class QNetworkReply;
struct HttpRequest;

// The plumbing shared by chat streams and model-list fetches.
namespace NetworkAccess {

// The one process-wide manager, created on first use on the main thread and owned by the
// application object. Requires a QCoreApplication.
QNetworkAccessManager &manager();

// Sends request (its method, headers, body and time-out). Redirects are never followed: a 3xx
// reaches the caller as its own status, so an API key never travels to another origin. The
// caller owns the reply.
QNetworkReply *send(const HttpRequest &request);

// True when the reply came over http or https; anything else (file:, data:) is no HTTP reply.
bool isHttpReply(const QNetworkReply &reply);

// Qt's own account of a failed transfer.
TransferError transferError(const QNetworkReply &reply);

} // namespace NetworkAccess
