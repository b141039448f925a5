#pragma once

// What the window tests share: content views over scratch stores against a mock provider, a
// transcript fed by a loopback server, and the lookups of named and shown child widgets.
// Stores and views must be made after a StorageTest::Profile, so nothing reaches the real profile.

#include "chat/chatviewmodel.h"
#include "loopbackserver.h"
#include "mockprovider.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "storagetestsupport.h"
#include "ui/contentview.h"
#include "ui/scrollcontroller.h"
#include "ui/transcriptview.h"

#include <QImage>
#include <QPaintEvent>
#include <QRegion>
#include <QScreen>
#include <QTest>

namespace UiTest {

using namespace Qt::StringLiterals;

template<class T>
T *child(const QObject *parent, const char *name)
{
    return parent->findChild<T *>(QLatin1StringView(name));
}

// The children of that name (any name when null) that are on screen now.
template<class T>
QList<T *> shownChildren(const QObject *parent, const char *name = nullptr)
{
    QList<T *> shown;
    const auto all = name ? parent->findChildren<T *>(QLatin1StringView(name)) : parent->findChildren<T *>();
    for (T *widget : all) {
        if (widget->isVisible())
            shown.append(widget);
    }
    return shown;
}

inline Conversation conversationOf(const QList<ChatMessage> &messages)
{
    Conversation conversation;
    conversation.id = QUuid::createUuid();
    conversation.messages = messages;
    return conversation;
}

// One streamed event of an OpenAI-style reply carrying this text.
inline QByteArray deltaEvent(const QString &text)
{
    QString escaped = text;
    escaped.replace(u'\\', u"\\\\"_s).replace(u'"', u"\\\""_s).replace(u'\n', u"\\n"_s);
    return "data: {\"choices\":[{\"delta\":{\"content\":\"" + escaped.toUtf8() + "\"}}]}\n\n";
}

// What the screen shows of the widget's window, and what a whole fresh paint of the widget gives:
// the two differ where a partial repaint left something stale.
inline QImage onScreen(QWidget *widget)
{
    return widget->screen()->grabWindow(widget->winId()).toImage().convertToFormat(QImage::Format_RGB32);
}
inline QImage freshPaint(QWidget *widget)
{
    return widget->grab().toImage().convertToFormat(QImage::Format_RGB32);
}

// Counts the paints a widget is asked for and, when given a region, collects where.
class PaintCounter final : public QObject
{
public:
    PaintCounter(QWidget *widget, int *count, QRegion *painted = nullptr)
        : m_count(count)
        , m_painted(painted)
    {
        widget->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::Paint) {
            ++*m_count;
            if (m_painted)
                *m_painted += static_cast<QPaintEvent *>(event)->region();
        }
        return false;
    }

private:
    int *m_count;
    QRegion *m_painted;
};

// Content views, each as a main window holds one, over one provider store and one history file,
// against a mock provider on loopback. The views are deleted first.
struct ChatWindows
{
    explicit ChatWindows(const QString &historyFile)
        : chats(historyFile)
    {
        store.setProviders({});
        store.setSelectedID(std::nullopt);
    }
    ~ChatWindows() { qDeleteAll(views); }

    ContentView *makeView()
    {
        auto *view = new ContentView(&store, &chats);
        view->setFocusDelay(std::chrono::milliseconds(0));
        view->resize(900, 600);
        view->show();
        views.append(view);
        return view;
    }
    // A provider of the mock's, added to the store (and so picked when none was).
    Provider addProvider(const QString &name, const QStringList &cached = {}, const QString &model = u"mock-small"_s)
    {
        Provider p = StorageTest::provider(name);
        p.baseURL = mock.baseURL();
        p.model = model;
        p.cachedModels = cached;
        store.add(p);
        return p;
    }

    MockProvider mock;
    ProviderStore store;
    ConversationStore chats;
    QList<ContentView *> views;
};

// A window's transcript with its controller, wired as the main window wires them, its replies
// served by a loopback server. Not shown yet.
struct StreamedTranscript
{
    StreamedTranscript()
    {
        // Every fragment reaches the transcript: each clock reading is a flush interval later.
        chat.setClock([this] { return now += 1; });
        chat.setOnStreamEnd([this] { scroll.streamEnded(); });
        chat.activate(conversationOf({}));
        view.resize(480, 400);
    }
    // Starts a turn whose reply arrives as these pieces, delayMs apart, or as response.
    void send(QList<QByteArray> pieces, int delayMs, std::optional<LoopbackResponse> response = {})
    {
        pieces.append("data: [DONE]\n\n");
        server.setResponse(response.value_or(LoopbackResponse::eventStream(pieces, delayMs)));
        Provider provider = StorageTest::provider(u"Loopback"_s);
        provider.baseURL = server.url(u"/v1"_s).toString();
        chat.setInput(u"Tell me a long story."_s);
        scroll.messageSent();
        chat.send(provider);
        QVERIFY(chat.isStreaming());
    }

    LoopbackServer server;
    ChatViewModel chat;
    ScrollController scroll;
    TranscriptView view{&chat, &scroll};
    double now = 0;
};

} // namespace UiTest
