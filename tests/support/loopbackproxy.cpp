#include "loopbackproxy.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtEndian>
#include <QUrl>

namespace {

const char *headBufferProperty = "loopbackProxyHead";
const char *socksStageProperty = "loopbackProxySocksStage"; // 0 greeting, 1 sign-in, 2 connect

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
    m_user = user;
    m_password = password;
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
    QByteArray buffer = client->property(headBufferProperty).toByteArray() + bytes;
    if (client->property(socksStageProperty).isValid() || buffer.startsWith('\x05')) {
        if (!client->property(socksStageProperty).isValid())
            client->setProperty(socksStageProperty, 0);
        while (!buffer.isEmpty() && handleSocks(client, buffer)) {
        }
        client->setProperty(headBufferProperty, buffer);
        return;
    }
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
    connectUpstream(client, host, port,
                    tunnel ? QByteArray("HTTP/1.1 200 Connection established\r\n\r\n") : QByteArray(), forward);
}

bool LoopbackProxy::handleSocks(QTcpSocket *client, QByteArray &buffer)
{
    const auto byte = [&](qsizetype i) { return quint8(buffer.at(i)); };
    const auto refuse = [&](const QByteArray &answer) {
        client->write(answer);
        client->disconnectFromHost();
        buffer.clear();
        return false;
    };
    const int stage = client->property(socksStageProperty).toInt();
    if (stage == 0) { // version, method count, methods
        if (buffer.size() < 2 || buffer.size() < 2 + byte(1))
            return false;
        const QByteArray methods = buffer.mid(2, byte(1));
        buffer.remove(0, 2 + byte(1));
        const char wanted = m_user.isEmpty() ? '\x00' : '\x02';
        if (!methods.contains(wanted))
            return refuse(QByteArray("\x05\xff", 2));
        client->write(QByteArray("\x05", 1) + wanted);
        client->setProperty(socksStageProperty, m_user.isEmpty() ? 2 : 1);
        return true;
    }
    if (stage == 1) { // sub-version, user, password
        if (buffer.size() < 2 || buffer.size() < 3 + byte(1) || buffer.size() < 3 + byte(1) + byte(2 + byte(1)))
            return false;
        const QByteArray user = buffer.mid(2, byte(1));
        const QByteArray password = buffer.mid(3 + byte(1), byte(2 + byte(1)));
        buffer.remove(0, 3 + user.size() + password.size());
        if (user != m_user || password != m_password) {
            m_requestLines.append("SOCKS5 sign-in refused");
            return refuse(QByteArray("\x01\x01", 2));
        }
        client->write(QByteArray("\x01\x00", 2));
        client->setProperty(socksStageProperty, 2);
        return true;
    }
    // version, command, reserved, address type, address, port
    if (buffer.size() < 5)
        return false;
    QString host;
    qsizetype end = 0;
    switch (byte(3)) {
    case 1:
        end = 4 + 4;
        if (buffer.size() >= end)
            host = QHostAddress(qFromBigEndian<quint32>(buffer.constData() + 4)).toString();
        break;
    case 3:
        end = 5 + byte(4);
        host = QString::fromLatin1(buffer.mid(5, byte(4)));
        break;
    case 4:
        end = 4 + 16;
        if (buffer.size() >= end)
            host = QHostAddress(reinterpret_cast<const quint8 *>(buffer.constData() + 4)).toString();
        break;
    default:
        return refuse(QByteArray("\x05\x08\x00\x01\0\0\0\0\0\0", 10));
    }
    if (buffer.size() < end + 2)
        return false;
    const quint16 port = qFromBigEndian<quint16>(buffer.constData() + end);
    const QByteArray forward = buffer.mid(end + 2);
    buffer.clear();
    const QString target = host.contains(u':') ? u'[' + host + u']' : host;
    m_requestLines.append("SOCKS5 CONNECT " + target.toLatin1() + ':' + QByteArray::number(port));
    disconnect(client, &QTcpSocket::readyRead, this, nullptr);
    connectUpstream(client, host, port, QByteArray("\x05\x00\x00\x01\0\0\0\0\0\0", 10), forward);
    return false;
}

void LoopbackProxy::connectUpstream(QTcpSocket *client, const QString &host, quint16 port, const QByteArray &greeting,
                                    const QByteArray &forward)
{
    auto *upstream = new QTcpSocket(client);
    connect(upstream, &QTcpSocket::connected, this, [this, client, upstream, greeting, forward] {
        client->write(greeting);
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
