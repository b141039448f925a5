#include "transport/networkaccess.h"

#include "transport/request.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>

namespace NetworkAccess {

QNetworkAccessManager &manager()
{
    // Parented to the application so that it goes before the event loop does; recreated if a
    // test builds a second application object.
    static QPointer<QNetworkAccessManager> shared;
    if (!shared)
        shared = new QNetworkAccessManager(QCoreApplication::instance());
    return *shared;
}

QNetworkReply *send(const HttpRequest &request)
{
    QNetworkRequest networkRequest = request.toNetworkRequest();
    // Manual redirects: Qt's default would replay our raw headers, the API key among them, to
    // whatever host the Location names.
    networkRequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    if (request.body)
        return manager().sendCustomRequest(networkRequest, request.method, *request.body);
    return manager().sendCustomRequest(networkRequest, request.method);
}

ReplyKind replyKind(const QNetworkReply &reply)
{
    const QString scheme = reply.url().scheme();
    if (scheme == u"http" || scheme == u"https")
        return ReplyKind::http;
    // Qt refuses a POST to file: as an unknown protocol, yet such a URL does name something
    // that answers without HTTP.
    if (scheme == u"file" || scheme == u"qrc" || scheme == u"data")
        return ReplyKind::notHTTP;
    return ReplyKind::unsupported;
}

TransferError transferError(const QNetworkReply &reply)
{
    return {reply.error(), reply.errorString()};
}

} // namespace NetworkAccess
