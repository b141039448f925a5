#include "loopbackserver.h"

#include <QFile>
#include <QHash>
#include <QHostAddress>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <memory>

namespace {

// Only a reader of the traffic sees these: Qt tells the status by its number.
const char *reasonPhrase(int status)
{
    static const QHash<int, const char *> phrases = {
        {200, "OK"},        {307, "Temporary Redirect"}, {308, "Permanent Redirect"},    {401, "Unauthorized"},
        {404, "Not Found"}, {429, "Too Many Requests"},  {500, "Internal Server Error"}, {503, "Service Unavailable"}};
    return phrases.value(status, "Status");
}

const char *requestBufferProperty = "loopbackRequestBuffer";

} // namespace

QByteArray LoopbackRequest::header(QByteArrayView name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value.isNull() ? QByteArray("") : value;
    }
    return {};
}

LoopbackResponse LoopbackResponse::text(int status, const QByteArray &body, const QByteArray &contentType)
{
    LoopbackResponse response;
    response.status = status;
    response.headers = {{"Content-Type", contentType}};
    response.pieces = {{body, 0}};
    return response;
}

LoopbackResponse LoopbackResponse::eventStream(const QList<QByteArray> &pieces, int delayMs)
{
    LoopbackResponse response;
    response.headers = {{"Content-Type", "text/event-stream"}};
    response.framing = Framing::chunked;
    for (const QByteArray &piece : pieces)
        response.pieces.append({piece, response.pieces.isEmpty() ? 0 : delayMs});
    return response;
}

LoopbackResponse LoopbackResponse::silent()
{
    LoopbackResponse response;
    response.neverAnswer = true;
    return response;
}

LoopbackResponse LoopbackResponse::endless(int status, const QByteArray &first, const QByteArray &repeated,
                                           const QByteArray &contentType)
{
    LoopbackResponse response = text(status, first, contentType);
    response.pieces.append({repeated, 0});
    response.framing = Framing::chunked;
    response.repeatLastPiece = true;
    return response;
}

LoopbackServer::LoopbackServer(QObject *parent)
    : QObject(parent)
{}

LoopbackServer::~LoopbackServer() = default;

bool LoopbackServer::listen(quint16 port)
{
    m_server = new QTcpServer(this);
    connect(m_server, &QTcpServer::pendingConnectionAvailable, this, &LoopbackServer::handleConnection);
    if (!m_server->listen(QHostAddress::LocalHost, port)) {
        m_error = m_server->errorString();
        return false;
    }
    return true;
}

bool LoopbackServer::listenTls(const QString &certificateFile, const QString &keyFile, quint16 port)
{
    if (!QSslSocket::supportsSsl()) {
        m_error = QStringLiteral("no TLS backend is available");
        return false;
    }
    QFile certFile(certificateFile);
    QFile keyFileIn(keyFile);
    if (!certFile.open(QIODevice::ReadOnly) || !keyFileIn.open(QIODevice::ReadOnly)) {
        m_error = QStringLiteral("cannot read the certificate or its key");
        return false;
    }
    const QSslCertificate certificate(&certFile, QSsl::Pem);
    const QSslKey key(&keyFileIn, QSsl::Rsa, QSsl::Pem);
    if (certificate.isNull() || key.isNull()) {
        m_error = QStringLiteral("the certificate or its key does not load");
        return false;
    }
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificate(certificate);
    configuration.setPrivateKey(key);
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    auto *server = new QSslServer(this);
    server->setSslConfiguration(configuration);
    m_server = server;
    m_tls = true;
    // The handshake of a refusing client ends here; it never becomes a pending connection.
    connect(server, &QSslServer::startedEncryptionHandshake, this, [this](QSslSocket *) { ++m_connections; });
    connect(m_server, &QTcpServer::pendingConnectionAvailable, this, &LoopbackServer::handleConnection);
    if (!m_server->listen(QHostAddress::LocalHost, port)) {
        m_error = m_server->errorString();
        return false;
    }
    return true;
}

quint16 LoopbackServer::port() const
{
    return m_server ? m_server->serverPort() : 0;
}

QUrl LoopbackServer::url(const QString &path) const
{
    return QUrl((m_tls ? QStringLiteral("https://127.0.0.1:") : QStringLiteral("http://127.0.0.1:")) +
                QString::number(port()) + path);
}

void LoopbackServer::setResponse(const LoopbackResponse &response)
{
    m_response = response;
}

void LoopbackServer::setHandler(Handler handler)
{
    m_handler = std::move(handler);
}

void LoopbackServer::handleConnection()
{
    while (QTcpSocket *socket = m_server->nextPendingConnection()) {
        if (!m_tls)
            ++m_connections;
        socket->setParent(this);
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { handleReadable(socket); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        if (socket->bytesAvailable() > 0)
            handleReadable(socket);
    }
}

void LoopbackServer::handleReadable(QTcpSocket *socket)
{
    QByteArray buffer = socket->property(requestBufferProperty).toByteArray() + socket->readAll();
    const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
    if (headEnd < 0) {
        socket->setProperty(requestBufferProperty, buffer);
        return;
    }
    LoopbackRequest request;
    const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    request.method = requestLine.value(0);
    request.path = requestLine.value(1);
    qsizetype contentLength = 0;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            continue;
        const QByteArray name = line.left(colon).trimmed();
        const QByteArray value = line.mid(colon + 1).trimmed();
        request.headers.append({name, value});
        if (name.compare("content-length", Qt::CaseInsensitive) == 0)
            contentLength = value.toLongLong();
    }
    if (buffer.size() - headEnd - 4 < contentLength) {
        socket->setProperty(requestBufferProperty, buffer);
        return;
    }
    request.body = buffer.mid(headEnd + 4, contentLength);
    socket->setProperty(requestBufferProperty, QVariant());
    disconnect(socket, &QTcpSocket::readyRead, this, nullptr);

    m_requests.append(request);
    emit requestReceived(request);
    answer(socket, m_handler ? m_handler(request) : m_response);
}

void LoopbackServer::answer(QTcpSocket *socket, const LoopbackResponse &response)
{
    if (response.neverAnswer)
        return;
    connect(socket, &QTcpSocket::disconnected, this, &LoopbackServer::answered);
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reasonPhrase(response.status) + "\r\n";
    for (const auto &[name, value] : response.headers)
        head += name + ": " + value + "\r\n";
    switch (response.framing) {
    case LoopbackResponse::Framing::contentLength: {
        qsizetype length = 0;
        for (const auto &piece : response.pieces)
            length += piece.bytes.size();
        head += "Content-Length: " + QByteArray::number(length) + "\r\n";
        break;
    }
    case LoopbackResponse::Framing::chunked:
        head += "Transfer-Encoding: chunked\r\n";
        break;
    case LoopbackResponse::Framing::closeDelimited:
        break;
    }
    head += "Connection: close\r\n\r\n";
    socket->write(head);
    sendPieces(socket, response, 0);
}

void LoopbackServer::sendPieces(QTcpSocket *socket, LoopbackResponse response, int next)
{
    const bool chunked = response.framing == LoopbackResponse::Framing::chunked;
    while (next < response.pieces.size()) {
        if (next == response.dropAfterPieces) {
            socket->flush();
            socket->abort();
            return;
        }
        const LoopbackResponse::Piece &piece = response.pieces.at(next);
        if (piece.delayMs > 0) {
            // Read before zeroing: piece may refer to the very entry that is zeroed.
            const int delayMs = piece.delayMs;
            // Zero the delay so that the piece goes out when the timer fires.
            response.pieces[next].delayMs = 0;
            QPointer<QTcpSocket> guard(socket);
            QTimer::singleShot(delayMs, this, [this, guard, response = std::move(response), next]() mutable {
                if (guard && guard->state() == QAbstractSocket::ConnectedState)
                    sendPieces(guard, std::move(response), next);
            });
            socket->flush();
            return;
        }
        if (chunked) {
            if (!piece.bytes.isEmpty())
                write(socket, QByteArray::number(piece.bytes.size(), 16) + "\r\n" + piece.bytes + "\r\n");
        } else {
            write(socket, piece.bytes);
        }
        ++next;
    }
    if (response.repeatLastPiece && !response.pieces.isEmpty()) {
        const QByteArray &last = response.pieces.constLast().bytes;
        repeatPiece(socket, chunked ? QByteArray::number(last.size(), 16) + "\r\n" + last + "\r\n" : last);
        return;
    }
    if (next == response.dropAfterPieces) {
        socket->flush();
        socket->abort();
        return;
    }
    if (chunked)
        socket->write("0\r\n\r\n");
    closeAfterWrite(socket);
}

void LoopbackServer::write(QTcpSocket *socket, const QByteArray &bytes)
{
    m_bodyBytesSent += bytes.size();
    socket->write(bytes);
}

void LoopbackServer::repeatPiece(QTcpSocket *socket, const QByteArray &bytes)
{
    // Kept a little ahead of the client, so that the server's own queue stays small.
    const auto left = std::make_shared<qint64>(LoopbackResponse::endlessLimitBytes);
    const auto feed = [this, socket, bytes, left] {
        if (socket->state() != QAbstractSocket::ConnectedState || *left <= 0)
            return;
        while (socket->bytesToWrite() < 1024 * 1024 && *left > 0) {
            write(socket, bytes);
            *left -= bytes.size();
        }
        if (*left <= 0) {
            disconnect(socket, &QTcpSocket::bytesWritten, this, nullptr);
            closeAfterWrite(socket);
        }
    };
    connect(socket, &QTcpSocket::bytesWritten, this, feed);
    feed();
}

void LoopbackServer::closeAfterWrite(QTcpSocket *socket)
{
    // disconnectFromHost() waits for pending bytes before closing.
    socket->disconnectFromHost();
}
