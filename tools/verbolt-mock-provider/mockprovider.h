#pragma once

#include "loopbackserver.h"

#include <QObject>
#include <QString>
#include <QStringList>

// How the mock provider behaves.
struct MockProviderOptions
{
    QString reply = QStringLiteral("Hello from the **mock provider**.\n\n```python\nprint(\"hi\")\n```\n");
    double tokensPerSecond = 0; // 0: as fast as the connection takes them
    int failStatus = 0;         // when set, every request gets this status and failBody
    QByteArray failBody{};
    int dropAfterEvents = -1; // close the connection mid-stream after this many events
    QString requireKey{};     // when set, requests without this key get 401
    QStringList models = {QStringLiteral("mock-small"), QStringLiteral("mock-large"), QStringLiteral("Mock-Vision")};
    int charactersPerToken = 4; // the reply goes out in pieces of about this many characters
};

// A language-model provider on 127.0.0.1 for tests, demos and benchmarks: POST
// /v1/chat/completions (OpenAI-compatible events, a usage chunk, "[DONE]"), POST /v1/messages
// (Anthropic events with usage) and GET /v1/models, all streaming the same reply text.
class MockProvider final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MockProvider)

public:
    explicit MockProvider(QObject *parent = nullptr);

    void setOptions(const MockProviderOptions &options) { m_options = options; }
    const MockProviderOptions &options() const { return m_options; }

    // False, with errorString(), when the port cannot be bound.
    bool listen(quint16 port = 0);
    QString errorString() const { return m_server->errorString(); }
    quint16 port() const { return m_server->port(); }
    // "http://127.0.0.1:<port>/v1", the base URL a provider record points at.
    QString baseURL() const;
    LoopbackServer &server() { return *m_server; }

    // The reply split into the pieces each event carries, never splitting a character.
    static QStringList tokens(const QString &reply, int charactersPerToken);
    // The response for one request, as the server sends it.
    LoopbackResponse respond(const LoopbackRequest &request) const;

private:
    LoopbackResponse chatResponse(const LoopbackRequest &request, bool anthropic) const;

    MockProviderOptions m_options;
    LoopbackServer *m_server;
};
