#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QUrl>

#include <functional>

class QTcpServer;
class QTcpSocket;

// One request as the loopback server read it.
struct LoopbackRequest
{
    QByteArray method;
    QByteArray path; // with the query, as sent
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;

    // The first header of that name (case-insensitive), or a null array.
    QByteArray header(QByteArrayView name) const;
};

// What the server answers, scripted by the test: the status line and headers, then the body
// in pieces, each sent after its delay, so a test decides where network reads split.
struct LoopbackResponse
{
    struct Piece
    {
        QByteArray bytes;
        int delayMs = 0; // wait before sending this piece
    };
    enum class Framing {
        contentLength, // "Content-Length" of all pieces together
        chunked,       // one chunk per piece
        closeDelimited // no length: the body ends when the connection closes
    };

    int status = 200;
    QList<QPair<QByteArray, QByteArray>> headers;
    QList<Piece> pieces;
    Framing framing = Framing::contentLength;
    int dropAfterPieces = -1; // close the connection after this many pieces, mid-body
    bool neverAnswer = false; // read the request, then say nothing and keep the connection
    // After the pieces, send the last one again and again, as fast as the client takes it, until
    // the client goes away or endlessLimitBytes have been sent: a client that never stops
    // reading still ends, and a test can tell it from one that stopped.
    bool repeatLastPiece = false;
    static constexpr qint64 endlessLimitBytes = 512LL * 1024 * 1024;

    static LoopbackResponse text(int status, const QByteArray &body, const QByteArray &contentType = "text/plain");
    static LoopbackResponse eventStream(const QList<QByteArray> &pieces, int delayMs = 0);
    // Reads the request and never answers.
    static LoopbackResponse silent();
    // A chunked body of first, then repeated as one chunk after another without end.
    static LoopbackResponse endless(int status, const QByteArray &first, const QByteArray &repeated,
                                    const QByteArray &contentType = "text/event-stream");
};

// An HTTP/1.1 server on 127.0.0.1 for tests and the mock provider: plain TCP or TLS, one
// response per connection ("Connection: close"). Every request is recorded. Owns its sockets;
// failures to listen are reported by listen()'s result.
class LoopbackServer final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LoopbackServer)

public:
    using Handler = std::function<LoopbackResponse(const LoopbackRequest &)>;

    explicit LoopbackServer(QObject *parent = nullptr);
    ~LoopbackServer() override;

    // Listens on 127.0.0.1 (port 0 picks a free one). False, with errorString(), on failure.
    bool listen(quint16 port = 0);
    // The same over TLS with the given PEM certificate and key files. False when the files do
    // not load or no TLS backend is available.
    bool listenTls(const QString &certificateFile, const QString &keyFile, quint16 port = 0);
    QString errorString() const { return m_error; }

    quint16 port() const;
    // "http://127.0.0.1:<port>" (or https) followed by path.
    QUrl url(const QString &path = {}) const;

    // Every request gets this response, unless a handler is set.
    void setResponse(const LoopbackResponse &response);
    void setHandler(Handler handler);

    const QList<LoopbackRequest> &requests() const { return m_requests; }
    // Connections accepted so far, including ones that never sent a whole request.
    int connectionCount() const { return m_connections; }
    // Body bytes handed to the sockets so far, chunk framing included.
    qint64 bodyBytesSent() const { return m_bodyBytesSent; }

signals:
    // Emitted when a whole request has been read, before the answer starts.
    void requestReceived(const LoopbackRequest &request);
    // Emitted when the connection of an answered request has closed.
    void answered();

private:
    void handleConnection();
    void handleReadable(QTcpSocket *socket);
    void answer(QTcpSocket *socket, const LoopbackResponse &response);
    void sendPieces(QTcpSocket *socket, LoopbackResponse response, int next);
    void repeatPiece(QTcpSocket *socket, const QByteArray &bytes);
    void write(QTcpSocket *socket, const QByteArray &bytes);
    void closeAfterWrite(QTcpSocket *socket);

    QTcpServer *m_server = nullptr;
    bool m_tls = false;
    QString m_error;
    LoopbackResponse m_response;
    Handler m_handler;
    QList<LoopbackRequest> m_requests;
    int m_connections = 0;
    qint64 m_bodyBytesSent = 0;
};
