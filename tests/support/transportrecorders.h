#pragma once

// What a chat stream or a model-list fetch told its consumer, and the provider they ask, for the
// tests that run them over loopback HTTP.

#include "transport/chatstream.h"
#include "transport/modelsfetch.h"

#include <QPointer>
#include <QTest>

namespace TransportTest {

// A provider of that wire at baseURL.
inline Provider provider(ProviderWire wire, const QString &baseURL, const QString &key = QStringLiteral("sk-test"),
                         const QString &model = QStringLiteral("m"))
{
    return {QUuid(), {}, wire, baseURL, model, {}, key};
}

// Everything one stream said; events after its end are counted apart, as there must be none.
struct StreamRecorder
{
    QList<ChatEvent> events;
    int finishedCount = 0;
    int eventsAfterEnd = 0;
    std::optional<ServiceError> error;

    void attach(ChatStream *stream, QObject *context)
    {
        QObject::connect(stream, &ChatStream::eventReceived, context, [this](const ChatEvent &event) {
            eventsAfterEnd += finishedCount > 0;
            events.append(event);
        });
        QObject::connect(stream, &ChatStream::finished, context, [this](const std::optional<ServiceError> &end) {
            ++finishedCount;
            error = end;
        });
    }
    QString text() const
    {
        QString all;
        for (const ChatEvent &event : events)
            all += event.text;
        return all;
    }
    QString errorText() const { return error ? errorDescription(*error) : QString(); }
};

// Runs one stream of "Hi" to its end and until it has deleted itself.
inline StreamRecorder runStream(const Provider &p, const ChatService &service = ChatService())
{
    StreamRecorder recorder;
    QObject consumer;
    QPointer<ChatStream> stream = service.stream(p, {ChatMessage(ChatRole::user, QStringLiteral("Hi"))}, &consumer);
    recorder.attach(stream, &consumer);
    [&] { QTRY_COMPARE_WITH_TIMEOUT(recorder.finishedCount, 1, 20000); }();
    [&] { QTRY_VERIFY(stream.isNull()); }();
    return recorder;
}

// How one model-list fetch ended.
struct FetchRecorder
{
    int finishedCount = 0;
    QStringList models;
    QString error;

    void attach(ModelsFetch *fetch, QObject *context)
    {
        QObject::connect(fetch, &ModelsFetch::finished, context, [this](const ModelsFetch::Result &result) {
            ++finishedCount;
            if (const auto *list = std::get_if<QStringList>(&result))
                models = *list;
            else
                error = errorDescription(std::get<ServiceError>(result));
        });
    }
};

} // namespace TransportTest
