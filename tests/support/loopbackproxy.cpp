#include "loopbackproxy.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

namespace {

const char *headBufferProperty = "loopbackProxyHead";

QByteArray headerValue(const QList<QByteArray> &lines, QByteArrayView name)
{
    for (const QByteArray &line : lines) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().compare(name, Qt::CaseInsensitive) == 0)
            return line.mid(colon + 1).trimmed();
    }
    return {};
}

} // namespace

LoopbackProxy::LoopbackProxy(QObject *parent)
    : QObject(parent)
{}

LoopbackProxy::~LoopbackProxy() = default;

bool LoopbackProxy::listen()
{
    m_server = new QTcpServer(this);
    connect(m_server, &QTcpServer::pendingConnectionAvailable, this, &LoopbackProxy::handleConnection);
    return m_server->listen(QHostAddress::LocalHost);
}

quint16 LoopbackProxy::port() const
{
    return m_server ? m_server->serverPort() : 0;
}

void LoopbackProxy::requireCredentials(const QByteArray &user, const QByteArray &password)
{
    m_expectedAuthorization = "Basic " + QByteArray(user + ':' + password).toBase64();
}

void LoopbackProxy::handleConnection()
{
    while (QTcpSocket *client = m_server->nextPendingConnection()) {
        client->setParent(this);
        connect(client, &QTcpSocket::disconnected, client, &QObject::deleteLater);
        connect(client, &QTcpSocket::readyRead, this, [this, client] { handleHead(client); });
        if (client->bytesAvailable() > 0)
            handleHead(client);
    }
}

void LoopbackProxy::handleHead(QTcpSocket *client)
{
    const QByteArray bytes = client->readAll();
    m_log += bytes;
    const QByteArray buffer = client->property(headBufferProperty).toByteArray() + bytes;
    const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
    if (headEnd < 0) {
        client->setProperty(headBufferProperty, buffer);
        return;
    }
    disconnect(client, &QTcpSocket::readyRead, this, nullptr);
    const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
    const QByteArray requestLine = lines.value(0).trimmed();
    m_requestLines.append(requestLine);
    const QList<QByteArray> parts = requestLine.split(' ');
    const QByteArray method = parts.value(0);
    const QByteArray target = parts.value(1);

    if (!m_expectedAuthorization.isEmpty() && headerValue(lines, "Proxy-Authorization") != m_expectedAuthorization) {
        client->write("HTTP/1.1 407 Proxy Authentication Required\r\n"
                      "Proxy-Authenticate: Basic realm=\"loopback\"\r\nContent-Length: 0\r\n"
                      "Connection: close\r\n\r\n");
        client->disconnectFromHost();
        return;
    }

    auto *upstream = new QTcpSocket(client);
    QByteArray forward;
    QString host;
    quint16 port = 0;
    const bool tunnel = method == "CONNECT";
    if (tunnel) {
        const qsizetype colon = target.lastIndexOf(':');
        host = QString::fromLatin1(target.left(colon));
        port = target.mid(colon + 1).toUShort();
        forward = buffer.mid(headEnd + 4);
    } else {
        // Absolute form to origin form, without the proxy's own headers.
        const QUrl url(QString::fromLatin1(target));
        host = url.host();
        port = quint16(url.port(80));
        forward = method + ' ' + url.path(QUrl::FullyEncoded).toLatin1() +
                  (url.hasQuery() ? '?' + url.query(QUrl::FullyEncoded).toLatin1() : QByteArray()) + " HTTP/1.1\r\n";
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines.at(i).trimmed();
            if (!line.isEmpty() && !line.toLower().startsWith("proxy-"))
                forward += line + "\r\n";
        }
        forward += "\r\n" + buffer.mid(headEnd + 4);
    }
    connect(upstream, &QTcpSocket::connected, this, [this, client, upstream, tunnel, forward] {
        if (tunnel)
            client->write("HTTP/1.1 200 Connection established\r\n\r\n");
        upstream->write(forward);
        pipe(client, upstream);
    });
    connect(upstream, &QTcpSocket::errorOccurred, client, [client] { client->disconnectFromHost(); });
    upstream->connectToHost(m_upstreamHost.isEmpty() ? host : m_upstreamHost, port);
}

void LoopbackProxy::pipe(QTcpSocket *client, QTcpSocket *upstream)
{
    connect(client, &QTcpSocket::readyRead, upstream, [this, client, upstream] {
        const QByteArray bytes = client->readAll();
        m_log += bytes;
        upstream->write(bytes);
    });
    connect(upstream, &QTcpSocket::readyRead, client, [client, upstream] { client->write(upstream->readAll()); });
    connect(upstream, &QTcpSocket::disconnected, client, [client, upstream] {
        client->write(upstream->readAll());
        client->disconnectFromHost();
    });
    connect(client, &QTcpSocket::disconnected, upstream, [upstream] { upstream->disconnectFromHost(); });
    if (client->bytesAvailable() > 0) {
        const QByteArray bytes = client->readAll();
        m_log += bytes;
        upstream->write(bytes);
    }
}
