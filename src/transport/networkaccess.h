#pragma once

#include "transport/chatservice.h"

#include <QPointer>

#include <optional>
#include <variant>

class QNetworkAccessManager;
class QNetworkReply;
struct HttpRequest;

// The plumbing shared by chat streams and model-list fetches.
namespace NetworkAccess {

// The process-wide manager for providers without a proxy of their own, which follows the
// system's proxy settings; created on first use on the main thread and destroyed, with the
// managers of providers' own proxies, with the application object. Requires a QCoreApplication.
QNetworkAccessManager &manager();

// Sends request (its method, headers and body); the caller owns the reply, which is aborted once
// it has brought nothing in for the request's time-out. Refuses,
// sending nothing, a header value that holds a control character (a key pasted with a line
// break would otherwise split the request or add headers of its own), a URL whose scheme Qt
// cannot send to, and a provider's proxy that is not http://host:port or socks5://host:port.
// Qt keeps at most 1 MB of the reply unread, chunked or not, so a reader that drains the reply
// on each readyRead bounds what a fast server can pile up in memory, and abort() stops the
// transfer at once.
std::variant<QNetworkReply *, ServiceError> send(const HttpRequest &request);

// A reply as far as Qt has told of it: the HTTP status once the head is in, or the failure that
// ends it; neither while the head is awaited. A 4xx or 5xx is an answer even though Qt flags it
// as an error too; only a failed transfer, or a reply that is not HTTP at all, is a failure. A
// cancellation reads "The request timed out." only when send() aborted it for having been quiet
// for its time-out; any other cancellation says the connection closed early.
struct ReplyState
{
    std::optional<int> status;
    std::optional<ServiceError> failure;
};
ReplyState replyState(const QNetworkReply &reply);

// Ends a transfer its owner no longer wants: receiver hears nothing more from the reply, a
// running transfer is aborted, the reply is deleted later, and the pointer is cleared.
void discard(QPointer<QNetworkReply> &reply, const QObject *receiver);

// What the user is told when the user ends a transfer themselves.
TransferError cancelled();

} // namespace NetworkAccess
