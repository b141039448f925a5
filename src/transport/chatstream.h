#pragma once

#include "model/provider.h"
#include "transport/chatservice.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QPointer>

#include <optional>

class QNetworkReply;
class QTimer;

// Qt's metatype probe looks through std::optional only one level deep and would then
// instantiate std::variant's operator<, which the error types rightly lack.
template<>
struct QTypeTraits::has_operator_less_than<std::optional<ServiceError>> : std::false_type
{};

// One running reply. Lives on the main thread and is created only by ChatService::stream().
// Emits eventReceived for each ChatEvent in the order of the provider's byte stream, then
// finished exactly once (nullopt = normal end). cancel() aborts the transfer at once: no
// eventReceived after it, and finished(nullopt) follows on a later turn of the event loop
// (cancellation is a normal end). If the consumer passed to stream() is destroyed, the stream
// aborts and emits nothing more. The stream deletes itself (deleteLater) after finished, or
// after its consumer is gone. What it holds stays within its TransferLimits whatever the server
// sends: past a limit it stops reading and ends with that limit's error.
class ChatStream final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ChatStream)

public:
    // A provider sends each token as a network packet of its own. While packets come small, Qt's
    // HTTP thread is asked to keep them back and they are read at most this often, so that a
    // stream costs a few wake-ups, reads and parses a second instead of some per packet. Each
    // read brings the transcript at most one update, and an update of a long reply costs the
    // window about a millisecond (layout, paint, the X server), so this interval is what a slow
    // stream costs: at 100 ms a reply at 100 tokens a second steps ten times a second, which
    // still reads as flowing text, and the window stays under 2% of a core. The first bytes after
    // a pause are read at once; large reads (a fast stream) are not held back.
    static constexpr int readIntervalMs = 100;

    ~ChatStream() override;

    // Ends the reply now; safe to call at any time, also from a slot of eventReceived and
    // after the end (then it does nothing).
    void cancel();
    bool isFinished() const { return m_finished; }

signals:
    // Emitted for each text fragment or token count, in stream order.
    void eventReceived(const ChatEvent &event);
    // Emitted once when the reply ends: nullopt for a normal end (including cancel()), or the
    // failure (missing key, bad base URL, a key that would break the headers, HTTP status with
    // its body, a limit passed, transfer error).
    void finished(const std::optional<ServiceError> &error);

private:
    friend class ChatService;

    explicit ChatStream(QObject *parent = nullptr);

    void start(const Provider &provider, const QList<ChatMessage> &messages, int transferTimeoutMs,
               TransferLimits limits);
    void handleHead();
    void handleReadyRead();
    void readAvailable();
    QByteArray readOnce();
    void release();
    void handleReplyFinished();
    void take(const QByteArray &bytes);
    void processLines(bool atEnd);
    void handleLine(QByteArrayView line);
    void end(std::optional<ServiceError> error, bool deferred);
    void stopTransfer();
    void abandon();

    enum class State { starting, waitingForHead, readingEvents, collectingError, done };

    QPointer<QNetworkReply> m_reply;
    State m_state = State::starting;
    ProviderWire m_wire = ProviderWire::openAI;
    int m_status = 0;
    QByteArray m_buffer;        // bytes not yet split into lines
    qsizetype m_scanFrom = 0;   // where to look for the next "\n" in m_buffer
    QByteArray m_errorBody;     // non-2xx body, line breaks dropped
    qsizetype m_bodyBytes = 0;  // non-2xx body bytes received, line breaks included
    qsizetype m_replyBytes = 0; // UTF-8 bytes of the text delivered so far
    TransferLimits m_limits;
    bool m_finished = false;
    static constexpr qsizetype heldReadBytes = 16 * 1024; // a read smaller than this holds the reply
    bool m_held = false;                                  // Qt keeps the reply's bytes back until release()
    QElapsedTimer m_sinceRead;                            // since the reply was last held
    QTimer *m_readTimer = nullptr;                        // the read deferred by handleReadyRead()
};
