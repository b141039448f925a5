#include "transport/chatstream.h"

#include "transport/networkaccess.h"

#include <QNetworkReply>
#include <QTimer>

ChatStream::ChatStream(QObject *parent)
    : QObject(parent)
{}

ChatStream::~ChatStream()
{
    stopTransfer();
}

ChatStream *ChatService::stream(const Provider &provider, const QList<ChatMessage> &messages, QObject *consumer) const
{
    auto *stream = new ChatStream;
    if (consumer)
        QObject::connect(consumer, &QObject::destroyed, stream, &ChatStream::abandon);
    const int timeoutMs = int(m_transferTimeout.count());
    // Started on the next turn so that even an immediate failure reaches a consumer that
    // connects after stream() returns.
    QTimer::singleShot(0, stream,
                       [stream, provider, messages, timeoutMs] { stream->start(provider, messages, timeoutMs); });
    return stream;
}

void ChatStream::start(const Provider &provider, const QList<ChatMessage> &messages, int transferTimeoutMs)
{
    if (m_finished)
        return;
    if (provider.apiKey.isEmpty()) {
        end(ChatServiceError::missingAPIKey(), false);
        return;
    }
    auto built = ChatService::makeRequest(provider, messages, provider.apiKey);
    if (auto *failure = std::get_if<ChatServiceError>(&built)) {
        end(*failure, false);
        return;
    }
    HttpRequest request = std::get<HttpRequest>(std::move(built));
    request.timeoutMs = transferTimeoutMs;
    m_wire = provider.wire;
    m_state = State::waitingForHead;
    m_reply = NetworkAccess::send(request);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &ChatStream::handleHead);
    connect(m_reply, &QNetworkReply::readyRead, this, &ChatStream::handleReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &ChatStream::handleReplyFinished);
}

void ChatStream::handleHead()
{
    if (m_state != State::waitingForHead || !m_reply)
        return;
    switch (NetworkAccess::replyKind(*m_reply)) {
    case NetworkAccess::ReplyKind::http:
        break;
    case NetworkAccess::ReplyKind::notHTTP:
        end(ChatServiceError::notHTTP(), false);
        return;
    case NetworkAccess::ReplyKind::unsupported:
        end(NetworkAccess::transferError(*m_reply), false);
        return;
    }
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return; // no head yet: a transfer error will follow
    m_status = status.toInt();
    m_state = (m_status >= 200 && m_status <= 299) ? State::readingEvents : State::collectingError;
}

void ChatStream::handleReadyRead()
{
    handleHead();
    if (m_state != State::readingEvents && m_state != State::collectingError)
        return;
    m_buffer += m_reply->readAll();
    processLines(false);
}

void ChatStream::handleReplyFinished()
{
    if (m_finished || !m_reply)
        return;
    handleHead();
    if (m_finished)
        return;
    const QNetworkReply::NetworkError error = m_reply->error();
    // Qt flags 4xx and 5xx replies as content or server errors; for us those are still a
    // whole HTTP answer. Only failures of the connection itself end a reply as a transfer error.
    const bool transferFailed =
        error != QNetworkReply::NoError && (m_state == State::waitingForHead || m_state == State::readingEvents ||
                                            error < QNetworkReply::ContentAccessDenied);
    if (transferFailed) {
        end(NetworkAccess::transferError(*m_reply), false);
        return;
    }
    m_buffer += m_reply->readAll();
    processLines(true);
    if (m_finished)
        return;
    if (m_state == State::collectingError)
        end(ChatServiceError::http(m_status, QString::fromUtf8(m_errorBody)), false);
    else
        end(std::nullopt, false);
}

void ChatStream::processLines(bool atEnd)
{
    qsizetype start = 0;
    const auto takeLine = [&](qsizetype endOfLine) {
        QByteArrayView line = QByteArrayView(m_buffer).sliced(start, endOfLine - start);
        if (line.endsWith('\r'))
            line.chop(1);
        if (m_state == State::collectingError) {
            m_errorBody += line;
            return;
        }
        const ChatService::Parsed parsed = ChatService::parseSSELine(line, m_wire);
        switch (parsed.kind) {
        case ChatService::Parsed::Kind::delta:
            emit eventReceived(ChatEvent::delta(parsed.text));
            break;
        case ChatService::Parsed::Kind::usage:
            emit eventReceived(ChatEvent::usageEvent(parsed.usage));
            break;
        case ChatService::Parsed::Kind::done:
            end(std::nullopt, false);
            break;
        case ChatService::Parsed::Kind::skip:
            break;
        }
    };

    // Splitting only at "\n" bytes keeps a UTF-8 character that straddles two reads whole.
    while (!m_finished) {
        const qsizetype newline = m_buffer.indexOf('\n', m_scanFrom);
        if (newline < 0)
            break;
        takeLine(newline);
        start = newline + 1;
        m_scanFrom = start;
    }
    if (m_finished)
        return;
    if (atEnd && start < m_buffer.size())
        takeLine(m_buffer.size());
    m_buffer.remove(0, start);
    m_scanFrom = atEnd ? 0 : m_buffer.size();
}

void ChatStream::cancel()
{
    if (m_finished)
        return;
    end(std::nullopt, true);
}

void ChatStream::end(std::optional<ServiceError> error, bool deferred)
{
    if (m_finished)
        return;
    m_finished = true;
    m_state = State::done;
    stopTransfer();
    const auto emitFinished = [this, error = std::move(error)] {
        emit finished(error);
        deleteLater();
    };
    if (deferred)
        QTimer::singleShot(0, this, emitFinished);
    else
        emitFinished();
}

void ChatStream::stopTransfer()
{
    NetworkAccess::discard(m_reply, this);
}

void ChatStream::abandon()
{
    if (m_finished)
        return;
    m_finished = true;
    m_state = State::done;
    stopTransfer();
    deleteLater();
}
