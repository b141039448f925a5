#pragma once

#include "model/chatmessage.h"
#include "model/provider.h"
#include "transport/request.h"

#include <QList>
#include <QNetworkReply>
#include <QString>

#include <chrono>
#include <variant>

class ChatStream;
class QObject;

// The transport's own failures, with the texts the user sees.
struct ChatServiceError
{
    enum class Kind {
        http,
        decoding,
        missingAPIKey,
        invalidBaseURL,
        controlCharacterInKey, // refused before sending: the key would break the request's headers
        lineTooLong,           // one stream line over TransferLimits::lineBytes
        replyTooLong,          // the reply's text over TransferLimits::replyTextBytes
        bodyTooLarge,          // a non-2xx body over TransferLimits::errorBodyBytes; status set
        modelListTooLarge      // a model list over TransferLimits::modelListBytes
    };

    Kind kind = Kind::http;
    int status = 0;  // http, bodyTooLarge: the response status, -1 when the reply was not HTTP at all
    QString body;    // http: the whole body, line breaks dropped
    QString message; // decoding

    static ChatServiceError http(int status, QString body) { return {Kind::http, status, std::move(body), {}}; }
    static ChatServiceError decoding(QString message) { return {Kind::decoding, 0, {}, std::move(message)}; }
    static ChatServiceError missingAPIKey() { return {Kind::missingAPIKey, 0, {}, {}}; }
    static ChatServiceError invalidBaseURL() { return {Kind::invalidBaseURL, 0, {}, {}}; }
    // A reply whose scheme is not http or https.
    static ChatServiceError notHTTP() { return http(-1, QStringLiteral("No HTTP response")); }
    static ChatServiceError of(Kind kind, int status = 0) { return {kind, status, {}, {}}; }

    QString errorDescription() const;

    friend bool operator==(const ChatServiceError &, const ChatServiceError &) = default;
};

// The most a provider may send before the transport stops reading, so that a server that never
// stops cannot exhaust memory. Every real provider stays far below them; tests shrink them.
struct TransferLimits
{
    static constexpr qsizetype megabyte = 1024 * 1024;

    qsizetype lineBytes = 16 * megabyte;      // one line of a streamed reply
    qsizetype replyTextBytes = 32 * megabyte; // a reply's text, in UTF-8 bytes
    qsizetype errorBodyBytes = 16 * megabyte; // the body of a non-2xx answer
    qsizetype modelListBytes = 16 * megabyte; // a model-list body
};

// A failure of the transfer itself (refused connection, DNS, TLS, time-out), in Qt's words.
struct TransferError
{
    QNetworkReply::NetworkError code = QNetworkReply::UnknownNetworkError;
    QString description;

    friend bool operator==(const TransferError &, const TransferError &) = default;
};

// Everything a chat stream or a model-list fetch can end with.
using ServiceError = std::variant<ChatServiceError, TransferError>;
QString errorDescription(const ServiceError &error);

// One event of a reply stream: a piece of text, or token counts the provider reported.
struct ChatEvent
{
    enum class Kind { delta, usage };

    Kind kind = Kind::delta;
    QString text;
    TokenUsage usage;

    static ChatEvent delta(QString text) { return {Kind::delta, std::move(text), {}}; }
    static ChatEvent usageEvent(TokenUsage usage) { return {Kind::usage, {}, usage}; }

    friend bool operator==(const ChatEvent &, const ChatEvent &) = default;
};

// The one entry point through which a conversation talks to a provider. A cheap value; the
// transfer time-out (no bytes for that long ends the reply, 60 s) and the size limits are its
// only settings, which only tests change.
class ChatService final
{
public:
    explicit ChatService(std::chrono::milliseconds transferTimeout = std::chrono::seconds(60),
                         TransferLimits limits = {})
        : m_transferTimeout(transferTimeout)
        , m_limits(limits)
    {}

    // Sends the conversation to the provider's chat endpoint and returns at once a stream on
    // the main thread. Every failure (missing key, bad base URL, HTTP status, transfer error)
    // arrives as ChatStream::finished, never synchronously here. The stream stops silently when
    // consumer (which must not be null) is destroyed.
    ChatStream *stream(const Provider &provider, const QList<ChatMessage> &messages, QObject *consumer) const;

    // What one stream line means.
    struct Parsed
    {
        enum class Kind { delta, usage, done, skip };

        Kind kind = Kind::skip;
        QString text;
        TokenUsage usage;

        friend bool operator==(const Parsed &, const Parsed &) = default;
    };

    // The streamed chat request for provider and messages, sent with apiKey unchanged.
    // Fails with invalidBaseURL when the base URL is blank or does not join into a URL.
    static std::variant<HttpRequest, ChatServiceError>
    makeRequest(const Provider &provider, const QList<ChatMessage> &messages, const QString &apiKey);

    // Classifies one server-sent-event line (without its terminator). Pure and never fails:
    // anything it does not understand is skip.
    static Parsed parseSSELine(QByteArrayView utf8Line, ProviderWire wire);
    static Parsed parseSSELine(QStringView line, ProviderWire wire);

private:
    std::chrono::milliseconds m_transferTimeout;
    TransferLimits m_limits;
};
