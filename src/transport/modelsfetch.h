#pragma once

#include "transport/chatservice.h"

#include <QObject>
#include <QPointer>
#include <QStringList>

#include <variant>

class QNetworkReply;

// One running model-list request, created only by ModelsService::fetchModels(). Lives on the
// main thread, emits finished exactly once and then deletes itself (deleteLater). If the
// consumer passed to fetchModels() is destroyed first, the transfer is aborted and nothing is
// emitted. The body it keeps stays within its TransferLimits whatever the server sends.
class ModelsFetch final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ModelsFetch)

public:
    using Result = std::variant<QStringList, ServiceError>;

    ~ModelsFetch() override;

    // Aborts the transfer; finished then carries Qt's cancellation error on a later turn of
    // the event loop. Does nothing after the end.
    void cancel();
    bool isFinished() const { return m_finished; }

signals:
    // Emitted once: the sorted model identifiers, or the failure (missing key, bad base URL,
    // a key that would break the headers, HTTP status with its body, unexpected response shape,
    // a body past its limit, transfer error).
    void finished(const ModelsFetch::Result &result);

private:
    friend class ModelsService;

    explicit ModelsFetch(QObject *parent = nullptr);

    void start(const Provider &provider, int transferTimeoutMs, TransferLimits limits);
    void handleReadyRead();
    void handleReplyFinished();
    void end(Result result, bool deferred);
    void abandon();

    QPointer<QNetworkReply> m_reply;
    QByteArray m_body;
    TransferLimits m_limits;
    bool m_finished = false;
};
