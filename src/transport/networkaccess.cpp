#include "transport/networkaccess.h"

#include "transport/request.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace NetworkAccess {

namespace {

QNetworkAccessManager *shared = nullptr;

void destroyManager()
{
    delete shared;
    shared = nullptr;
}

} // namespace

QNetworkAccessManager &manager()
{
    // Destroyed while the application object is still whole: Qt's TLS backend looks the
    // application up while the manager closes its cached connections.
    if (!shared) {
        shared = new QNetworkAccessManager;
        qAddPostRoutine(destroyManager);
    }
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

void discard(QPointer<QNetworkReply> &reply, const QObject *receiver)
{
    QNetworkReply *const r = reply;
    reply = nullptr;
    if (!r)
        return;
    r->disconnect(receiver);
    if (r->isRunning())
        r->abort();
    r->deleteLater();
}

TransferError transferError(const QNetworkReply &reply)
{
    return {reply.error(), reply.errorString()};
}

} // namespace NetworkAccess
