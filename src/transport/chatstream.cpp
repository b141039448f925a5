#include "transport/chatstream.h"

#include "transport/networkaccess.h"

#include <QNetworkReply>
#include <QTimer>

#include <algorithm>

ChatStream::ChatStream(QObject *parent)
    : QObject(parent)
    , m_readTimer(new QTimer(this))
{
    m_readTimer->setSingleShot(true);
    connect(m_readTimer, &QTimer::timeout, this, &ChatStream::release);
}

ChatStream::~ChatStream()
{
    stopTransfer();
}

namespace {

qsizetype utf8Length(QStringView text)
{
    qsizetype bytes = text.size();
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if (u >= 0x80)
            bytes += (u >= 0x800 && !c.isSurrogate()) ? 2 : 1;
    }
    return bytes;
}

} // namespace

ChatStream *ChatService::stream(const Provider &provider, const QList<ChatMessage> &messages, QObject *consumer) const
{
    auto *stream = new ChatStream;
    if (consumer)
        QObject::connect(consumer, &QObject::destroyed, stream, &ChatStream::abandon);
    const int timeoutMs = int(m_transferTimeout.count());
    // Started on the next turn so that even an immediate failure reaches a consumer that
    // connects after stream() returns.
    QTimer::singleShot(0, stream, [stream, provider, messages, timeoutMs, limits = m_limits] {
        stream->start(provider, messages, timeoutMs, limits);
    });
    return stream;
}

void ChatStream::start(const Provider &provider, const QList<ChatMessage> &messages, int transferTimeoutMs,
                       TransferLimits limits)
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
    request.proxy = provider.proxy;
    m_wire = provider.wire;
    m_limits = limits;
    auto sent = NetworkAccess::send(request);
    if (auto *refused = std::get_if<ServiceError>(&sent)) {
        end(*refused, false);
        return;
    }
    m_state = State::waitingForHead;
    m_reply = std::get<QNetworkReply *>(sent);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &ChatStream::handleHead);
    connect(m_reply, &QNetworkReply::readyRead, this, &ChatStream::handleReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &ChatStream::handleReplyFinished);
}

void ChatStream::handleHead()
{
    if (m_state != State::waitingForHead || !m_reply)
        return;
    const NetworkAccess::ReplyState head = NetworkAccess::replyState(*m_reply);
    if (head.failure) {
        end(*head.failure, false);
        return;
    }
    if (!head.status)
        return;
    m_status = *head.status;
    m_state = (m_status >= 200 && m_status <= 299) ? State::readingEvents : State::collectingError;
}

void ChatStream::handleReadyRead()
{
    handleHead();
    if (m_state != State::readingEvents && m_state != State::collectingError)
        return;
    if (!m_held) {
        readAvailable();
        return;
    }
    if (m_readTimer->isActive())
        return;
    const qint64 since = m_sinceRead.isValid() ? m_sinceRead.elapsed() : qint64(readIntervalMs);
    m_readTimer->start(int(std::max<qint64>(0, readIntervalMs - since)));
}

void ChatStream::release()
{
    if (m_finished || !m_reply)
        return;
    // Qt's HTTP thread hands over what it kept back once the limit is lifted and the byte it
    // did hand over is read; that arrives as the next readyRead, which reads it at once.
    m_held = false;
    m_reply->setReadBufferSize(TransferLimits::megabyte);
    take(readOnce());
    processLines(false);
}

QByteArray ChatStream::readOnce()
{
    // One read of what is there: readAll() reads again until nothing comes, and each read
    // tells Qt's HTTP thread how much was freed, waking it once more for nothing.
    return m_reply->read(m_reply->bytesAvailable());
}

void ChatStream::readAvailable()
{
    if (m_finished || !m_reply)
        return;
    const QByteArray bytes = readOnce();
    take(bytes);
    processLines(false);
    if (m_finished || bytes.size() >= heldReadBytes)
        return;
    // A slow stream sends each token as a packet of its own. With the reply's limit at one
    // byte, Qt's HTTP thread hands over one byte and keeps the rest, and stops reading the
    // socket until asked, so neither it nor this thread wakes for every packet; the rest is
    // read readIntervalMs later. A fast stream's large reads are taken as they come.
    m_held = true;
    m_sinceRead.start();
    m_reply->setReadBufferSize(1);
}

void ChatStream::handleReplyFinished()
{
    if (m_finished || !m_reply)
        return;
    handleHead();
    if (m_finished)
        return;
    const NetworkAccess::ReplyState state = NetworkAccess::replyState(*m_reply);
    if (state.failure || !state.status) {
        end(state.failure.value_or(ChatServiceError::notHTTP()), false);
        return;
    }
    take(m_reply->readAll());
    processLines(true);
    if (m_finished)
        return;
    if (m_state == State::collectingError)
        end(ChatServiceError::http(m_status, QString::fromUtf8(m_errorBody)), false);
    else
        end(std::nullopt, false);
}

void ChatStream::take(const QByteArray &bytes)
{
    if (m_finished)
        return;
    if (m_state == State::collectingError) {
        m_bodyBytes += bytes.size();
        if (m_bodyBytes > m_limits.errorBodyBytes) {
            end(ChatServiceError::of(ChatServiceError::Kind::bodyTooLarge, m_status), false);
            return;
        }
    }
    m_buffer += bytes;
}

void ChatStream::handleLine(QByteArrayView line)
{
    if (line.endsWith('\r'))
        line.chop(1);
    if (m_state == State::collectingError) {
        m_errorBody += line;
        return;
    }
    if (line.size() > m_limits.lineBytes) {
        end(ChatServiceError::of(ChatServiceError::Kind::lineTooLong), false);
        return;
    }
    const ChatService::Parsed parsed = ChatService::parseSSELine(line, m_wire);
    switch (parsed.kind) {
    case ChatService::Parsed::Kind::delta:
        m_replyBytes += utf8Length(parsed.text);
        if (m_replyBytes > m_limits.replyTextBytes) {
            end(ChatServiceError::of(ChatServiceError::Kind::replyTooLong), false);
            return;
        }
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
}

void ChatStream::processLines(bool atEnd)
{
    if (m_finished)
        return;
    // Splitting only at "\n" bytes keeps a UTF-8 character that straddles two reads whole.
    qsizetype start = 0;
    while (!m_finished) {
        const qsizetype newline = m_buffer.indexOf('\n', m_scanFrom);
        if (newline < 0)
            break;
        handleLine(QByteArrayView(m_buffer).sliced(start, newline - start));
        start = newline + 1;
        m_scanFrom = start;
    }
    if (m_finished)
        return;
    if (atEnd && start < m_buffer.size()) {
        handleLine(QByteArrayView(m_buffer).sliced(start));
        return;
    }
    m_buffer.remove(0, start);
    m_scanFrom = m_buffer.size();
    // A line still without its end that is already past the limit (its "\r" aside) never
    // becomes one we would read.
    if (m_state == State::readingEvents && m_buffer.size() > m_limits.lineBytes + 1)
        end(ChatServiceError::of(ChatServiceError::Kind::lineTooLong), false);
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
    m_readTimer->stop();
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
