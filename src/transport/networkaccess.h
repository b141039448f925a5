#pragma once

#include "transport/chatservice.h"

#include <QPointer>

class QNetworkAccessManager;
class QNetworkReply;
struct HttpRequest;

// The plumbing shared by chat streams and model-list fetches.
namespace NetworkAccess {

// The one process-wide manager, created on first use on the main thread and destroyed with
// the application object. Requires a QCoreApplication.
QNetworkAccessManager &manager();

// Sends request (its method, headers, body and time-out). Redirects are never followed: a 3xx
// reaches the caller as its own status, so an API key never travels to another origin. The
// caller owns the reply.
QNetworkReply *send(const HttpRequest &request);

// What a finished or answering reply is: HTTP; something Qt reads without HTTP (file:, qrc:,
// data:), which answers but with no status; or a scheme it cannot send to at all.
enum class ReplyKind { http, notHTTP, unsupported };
ReplyKind replyKind(const QNetworkReply &reply);

// Ends a transfer its owner no longer wants: receiver hears nothing more from the reply, a
// running transfer is aborted, the reply is deleted later, and the pointer is cleared.
void discard(QPointer<QNetworkReply> &reply, const QObject *receiver);

// Qt's own account of a failed transfer.
TransferError transferError(const QNetworkReply &reply);

} // namespace NetworkAccess
