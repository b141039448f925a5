#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>

class QTcpServer;
class QTcpSocket;

// An HTTP and SOCKS5 proxy on 127.0.0.1 for tests: a request in absolute form ("POST
// http://host:port/path") is passed on to its host, and CONNECT, or a SOCKS5 connect, opens a
// tunnel to one. Everything clients send through
// it is kept, as whoever runs a proxy could see it. Owns its sockets; one request per connection.
class LoopbackProxy final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LoopbackProxy)

public:
    explicit LoopbackProxy(QObject *parent = nullptr);
    ~LoopbackProxy() override;

    // Listens on 127.0.0.1 at a free port; false on failure.
    bool listen();
    quint16 port() const;

    // From now on, a request without "Proxy-Authorization: Basic" for this user and password is
    // answered 407, and a SOCKS5 client must sign in with them.
    void requireCredentials(const QByteArray &user, const QByteArray &password);

    // From now on, every request goes on to this host instead of the one it names, so that a
    // test can name a host that exists only behind the proxy.
    void setUpstreamHost(const QString &host) { m_upstreamHost = host; }

    // The request lines received, such as "CONNECT 127.0.0.1:4433 HTTP/1.1", 407s included; a
    // SOCKS5 connect is written "SOCKS5 CONNECT host:port".
    const QList<QByteArray> &requestLines() const { return m_requestLines; }
    // Every byte clients sent, heads and tunnelled bytes alike.
    const QByteArray &log() const { return m_log; }

private:
    void handleConnection();
    void handleHead(QTcpSocket *client);
    // One step of a SOCKS5 exchange on the bytes so far; false while more are needed.
    bool handleSocks(QTcpSocket *client, QByteArray &buffer);
    void connectUpstream(QTcpSocket *client, const QString &host, quint16 port, const QByteArray &greeting,
                         const QByteArray &forward);
    void pipe(QTcpSocket *client, QTcpSocket *upstream);

    QTcpServer *m_server = nullptr;
    QByteArray m_expectedAuthorization; // empty: no credentials needed
    QByteArray m_user;
    QByteArray m_password;
    QString m_upstreamHost; // empty: the host the request names
    QList<QByteArray> m_requestLines;
    QByteArray m_log;
};
