#include "transport/networkaccess.h"

#include "transport/proxy.h"
#include "transport/request.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHash>
#include <QNetworkAccessManager>
#include <QNetworkProxyFactory>
#include <QNetworkReply>
#include <QTimer>

namespace NetworkAccess {

namespace {

QNetworkAccessManager *shared = nullptr;
// One manager per proxy that providers name, keyed by the text that names it: Qt sets a proxy
// per manager, not per request.
QHash<QString, QNetworkAccessManager *> *proxied = nullptr;

void destroyManager()
{
    if (proxied)
        qDeleteAll(*proxied);
    delete proxied;
    proxied = nullptr;
    delete shared;
    shared = nullptr;
}

QNetworkAccessManager &managerFor(const QString &proxyText, const QNetworkProxy &proxy)
{
    manager();
    if (!proxied)
        proxied = new QHash<QString, QNetworkAccessManager *>;
    QNetworkAccessManager *&m = (*proxied)[proxyText];
    if (!m) {
        m = new QNetworkAccessManager;
        m->setProxy(proxy);
    }
    return *m;
}

// The proxy a reply went through: its provider's own, or the one the system names for its URL.
std::optional<QNetworkProxy> proxyOf(const QNetworkReply &reply)
{
    if (reply.manager() && reply.manager()->proxy().type() != QNetworkProxy::DefaultProxy)
        return reply.manager()->proxy();
    const QList<QNetworkProxy> system = QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(reply.url()));
    for (const QNetworkProxy &proxy : system) {
        if (proxy.type() != QNetworkProxy::NoProxy && proxy.type() != QNetworkProxy::DefaultProxy)
            return proxy;
    }
    return std::nullopt;
}

// Our pattern for a proxy socket's failure, told by the text Qt gives it in either proxy
// engine; nothing for any other text.
const char *proxySocketFailure(const QString &text)
{
    struct Known
    {
        const char *context;
        const char *text;
        const char *pattern;
    };
    static constexpr Known known[] = {
        {"QSocks5SocketEngine", "Connection to proxy refused", "The proxy at %1 refused the connection."},
        {"QSocks5SocketEngine", "Connection to proxy closed prematurely", "The proxy at %1 closed the connection."},
        {"QSocks5SocketEngine", "Proxy host not found", "The proxy at %1 could not be found."},
        {"QSocks5SocketEngine", "Connection to proxy timed out", "The proxy at %1 did not answer in time."},
        {"QHttpSocketEngine", "Proxy connection refused", "The proxy at %1 refused the connection."},
        {"QHttpSocketEngine", "Proxy denied connection", "The proxy at %1 refused the connection."},
        {"QHttpSocketEngine", "Proxy connection closed prematurely", "The proxy at %1 closed the connection."},
        {"QHttpSocketEngine", "Proxy server not found", "The proxy at %1 could not be found."},
        {"QHttpSocketEngine", "Proxy server connection timed out", "The proxy at %1 did not answer in time."},
    };
    for (const Known &k : known) {
        if (text == QCoreApplication::translate(k.context, k.text))
            return k.pattern;
    }
    return nullptr;
}

// Qt's proxy failures, in words that name the proxy by host and port alone: its user name and
// password never reach a text the user sees.
std::optional<QString> proxyFailure(const QNetworkReply &reply)
{
    const char *pattern = nullptr;
    bool throughProxyOnly = false; // the same code without a proxy is the provider's own failure
    switch (reply.error()) {
    case QNetworkReply::ConnectionRefusedError:
        throughProxyOnly = true;
        Q_FALLTHROUGH();
    case QNetworkReply::ProxyConnectionRefusedError:
        pattern = "The proxy at %1 refused the connection.";
        break;
    case QNetworkReply::ProxyAuthenticationRequiredError:
        pattern = "The proxy at %1 needs a user name and password.";
        break;
    case QNetworkReply::ProxyConnectionClosedError:
        pattern = "The proxy at %1 closed the connection.";
        break;
    case QNetworkReply::HostNotFoundError:
        throughProxyOnly = true;
        Q_FALLTHROUGH();
    case QNetworkReply::ProxyNotFoundError:
        pattern = "The proxy at %1 could not be found.";
        break;
    case QNetworkReply::ProxyTimeoutError:
        pattern = "The proxy at %1 did not answer in time.";
        break;
    case QNetworkReply::UnknownNetworkError:
    case QNetworkReply::UnknownProxyError:
        // Qt passes some SOCKS5 and tunnel failures on only as their socket's text; known by it.
        throughProxyOnly = true;
        pattern = proxySocketFailure(reply.errorString());
        if (!pattern)
            return std::nullopt;
        break;
    default:
        return std::nullopt;
    }
    const std::optional<QNetworkProxy> proxy = proxyOf(reply);
    if (!proxy && throughProxyOnly)
        return std::nullopt;
    return QString::fromLatin1(pattern).arg(proxy ? ProviderProxy::hostPort(*proxy) : QStringLiteral("the system"));
}

bool isHTTP(const QString &scheme)
{
    return scheme == u"http" || scheme == u"https";
}

// Schemes Qt reads without HTTP: such a URL names something that answers, but with no status.
bool isNotHTTP(const QString &scheme)
{
    return scheme == u"file" || scheme == u"qrc" || scheme == u"data";
}

bool hasControlCharacter(QByteArrayView value)
{
    // Decoded, so that the C1 controls of UTF-8 count as well as the ASCII ones.
    for (const QChar c : QString::fromUtf8(value)) {
        if (c.category() == QChar::Other_Control)
            return true;
    }
    return false;
}

const char *const activityClockName = "verbolt-activity-clock";

// The transfer time-out: a reply that brings nothing in for timeoutMs is aborted, and its
// cancellation then reads as a time-out. Qt's own time-out (QNetworkRequest's transfer time-out)
// restarts its timer through a queued call for every piece of a body that arrives, which for a
// streamed reply is a wake-up of the event loop per token; here a piece only notes the time, and
// the one timer, when it fires early, is set again for what is left.
class ActivityClock final : public QObject
{
public:
    ActivityClock(QNetworkReply *reply, int timeoutMs)
        : QObject(reply)
        , m_timeoutMs(timeoutMs)
    {
        setObjectName(QLatin1StringView(activityClockName));
        m_sinceActivity.start();
        const auto touch = [this] { m_sinceActivity.start(); };
        connect(reply, &QNetworkReply::metaDataChanged, this, touch);
        connect(reply, &QNetworkReply::readyRead, this, touch);
        // A long conversation can take a while to send on a slow link.
        connect(reply, &QNetworkReply::uploadProgress, this, [this](qint64 sent) {
            if (sent > 0)
                m_sinceActivity.start();
        });
        if (timeoutMs <= 0)
            return;
        m_timer.setSingleShot(true);
        connect(&m_timer, &QTimer::timeout, this, [this, reply] { check(reply); });
        connect(reply, &QNetworkReply::finished, &m_timer, &QTimer::stop);
        m_timer.start(timeoutMs);
    }

    bool fired() const { return m_fired; }

private:
    void check(QNetworkReply *reply)
    {
        if (!reply->isRunning())
            return;
        const qint64 quiet = m_sinceActivity.elapsed();
        if (quiet < m_timeoutMs) {
            m_timer.start(int(m_timeoutMs - quiet));
            return;
        }
        m_fired = true;
        reply->abort();
    }

    int m_timeoutMs;
    QElapsedTimer m_sinceActivity;
    QTimer m_timer;
    bool m_fired = false;
};

bool timedOut(const QNetworkReply &reply)
{
    const auto *clock = reply.findChild<QObject *>(QLatin1StringView(activityClockName), Qt::FindDirectChildrenOnly);
    return clock && static_cast<const ActivityClock *>(clock)->fired();
}

TransferError unknownScheme()
{
    return {QNetworkReply::ProtocolUnknownError, QStringLiteral("The Base URL must start with http:// or https://.")};
}

// Qt's error codes that only restate a 4xx or 5xx status (content and server errors).
bool restatesStatus(QNetworkReply::NetworkError code)
{
    return (code >= QNetworkReply::ContentAccessDenied && code <= QNetworkReply::UnknownContentError) ||
           (code >= QNetworkReply::InternalServerError && code <= QNetworkReply::UnknownServerError);
}

// Qt's own account of a failed transfer, in words a user can act on where Qt's are misleading.
TransferError transferError(const QNetworkReply &reply)
{
    switch (reply.error()) {
    case QNetworkReply::OperationCanceledError:
        // Qt reports an abort in the same words whoever asked for it: the user's Stop, someone
        // else's, or the transfer time-out.
        if (timedOut(reply))
            return {QNetworkReply::TimeoutError, QStringLiteral("The request timed out.")};
        return {QNetworkReply::OperationCanceledError,
                QStringLiteral("The connection to the provider was closed before the reply was complete.")};
    case QNetworkReply::ProtocolUnknownError:
        return unknownScheme();
    default:
        if (const std::optional<QString> text = proxyFailure(reply))
            return {reply.error(), *text};
        return {reply.error(), reply.errorString()};
    }
}

} // namespace

QNetworkAccessManager &manager()
{
    // Destroyed while the application object is still whole: Qt's TLS backend looks the
    // application up while the manager closes its cached connections.
    if (!shared) {
        // Chats and model lists follow the system's proxy settings (http_proxy, https_proxy,
        // no_proxy and the desktop's), unless a provider names its own proxy.
        QNetworkProxyFactory::setUseSystemConfiguration(true);
        shared = new QNetworkAccessManager;
        qAddPostRoutine(destroyManager);
    }
    return *shared;
}

namespace {

// Qt keeps at most this much of a reply unread, provided its HTTP thread learns the size before
// the body arrives. A request with a body (every chat) starts only on a later turn of the event
// loop, and a size set before that start never reaches the thread: a chunked body would then be
// read in one loop that lasts as long as a fast server keeps the socket full, beyond the reach
// of the size limits and of abort(). Set again right after the start, queued behind it, the size
// reaches the thread before any byte of the answer can.
void bound(QNetworkReply *reply)
{
    reply->setReadBufferSize(TransferLimits::megabyte);
    QMetaObject::invokeMethod(
        reply, [reply] { reply->setReadBufferSize(TransferLimits::megabyte); }, Qt::QueuedConnection);
}

} // namespace

std::variant<QNetworkReply *, ServiceError> send(const HttpRequest &request)
{
    for (const auto &header : request.headers) {
        if (hasControlCharacter(header.second))
            return ChatServiceError::of(ChatServiceError::Kind::controlCharacterInKey);
    }
    const QString scheme = request.url.scheme();
    if (!isHTTP(scheme) && !isNotHTTP(scheme))
        return unknownScheme();

    QNetworkAccessManager *sender = &manager();
    if (!request.proxy.trimmed().isEmpty()) {
        const std::optional<QNetworkProxy> proxy = ProviderProxy::parse(request.proxy);
        if (!proxy)
            return TransferError{QNetworkReply::ProxyNotFoundError, ProviderProxy::formatHint()};
        sender = &managerFor(request.proxy.trimmed(), *proxy);
    }

    const QNetworkRequest networkRequest = request.toNetworkRequest();
    QNetworkReply *reply = request.body ? sender->sendCustomRequest(networkRequest, request.method, *request.body)
                                        : sender->sendCustomRequest(networkRequest, request.method);
    new ActivityClock(reply, request.timeoutMs);
    bound(reply);
    return reply;
}

ReplyState replyState(const QNetworkReply &reply)
{
    const QString scheme = reply.url().scheme();
    // Qt refuses a POST to file: as an unknown protocol, yet such a URL does name something
    // that answers without HTTP.
    if (isNotHTTP(scheme))
        return {std::nullopt, ChatServiceError::notHTTP()};
    if (!isHTTP(scheme))
        return {std::nullopt, unknownScheme()};
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const QNetworkReply::NetworkError code = reply.error();
    if (code != QNetworkReply::NoError && !(status.isValid() && status.toInt() >= 400 && restatesStatus(code)))
        return {std::nullopt, transferError(reply)};
    if (status.isValid())
        return {status.toInt(), std::nullopt};
    return {};
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

TransferError cancelled()
{
    return {QNetworkReply::OperationCanceledError, QStringLiteral("Operation canceled")};
}

} // namespace NetworkAccess
