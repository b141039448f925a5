// The main window's content on a heavy user's history (a generated 50 MB file of 2,000
// conversations of 20 messages), on the offscreen platform. Each figure is printed next to its
// floor, measured the same way in the same run: an empty widget made, shown and painted.
#include "chat/chatviewmodel.h"
#include "harness.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "ui/contentview.h"

#include <QApplication>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>

namespace {

// Lets deferred steps (the switch's two-stage scroll, lazy bubble building) run.
void settle()
{
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
}

// A history of the same shape when the shared generator is not there.
void writeFallbackHistory(const QString &path)
{
    ConversationStore store(path);
    QList<Conversation> all;
    const QString text =
        QStringLiteral("Some prose with **marks**, a list:\n\n- one\n- two\n\n```python\nprint(1)\n```\n").repeated(20);
    for (int c = 0; c < 2000; ++c) {
        Conversation conversation;
        conversation.id = QUuid::createUuid();
        conversation.title = QStringLiteral("Conversation %1").arg(c);
        conversation.createdAt = conversation.updatedAt = 700000000 + c;
        for (int m = 0; m < 20; ++m)
            conversation.messages.append(ChatMessage(m % 2 ? ChatRole::assistant : ChatRole::user, text,
                                                     m % 2 ? std::optional(TokenUsage{10, 20, 30}) : std::nullopt));
        all.append(conversation);
    }
    store.merge(all);
}

} // namespace

int main(int argc, char **argv)
{
    Bench::ScratchProfile dir;
    if (!dir.isValid())
        return 1;
    QApplication app(argc, argv);

    const QString history = dir.filePath(QStringLiteral("conversations.json"));
    if (!Bench::generateHistory(history))
        writeFallbackHistory(history);
    Bench::report("history size", double(QFileInfo(history).size()) / 1e6, "MB");

    ProviderStore providers;
    Provider provider;
    provider.id = QUuid::createUuid();
    provider.name = QStringLiteral("Bench");
    provider.baseURL = QStringLiteral("http://127.0.0.1:9/v1");
    provider.model = QStringLiteral("m");
    providers.add(provider);
    ConversationStore empty(dir.filePath(QStringLiteral("empty.json")));
    ConversationStore chats(history);
    Bench::report("conversations", double(chats.conversations().size()), "");

    constexpr int runs = 9;
    const double floor = Bench::medianMs(runs, [] {
        QWidget widget;
        widget.resize(960, 620);
        widget.show();
        (void)widget.grab();
    });
    const auto firstPaint = [&](ConversationStore *store) {
        return Bench::medianMs(runs, [&] {
            ContentView view(&providers, store);
            view.resize(960, 620);
            view.show();
            settle();
            (void)view.grab();
        });
    };
    const double emptyPaint = firstPaint(&empty);
    const double fullPaint = firstPaint(&chats);
    Bench::report("floor: empty widget made, shown, painted", floor, "ms");
    Bench::report("content view, no history: made, shown, painted", emptyPaint, "ms");
    Bench::report("content view, 50 MB history: made, shown, painted", fullPaint, "ms");

    ContentView view(&providers, &chats);
    view.resize(960, 620);
    view.show();
    settle();
    const QList<Conversation> &all = chats.conversations();
    int next = 0;
    const double switchMs = Bench::medianMs(runs, [&] {
        chats.setSelectedID(all.at((next += 97) % all.size()).id);
        settle();
        (void)view.grab();
    });
    Bench::report("switch conversation, painted", switchMs, "ms");
    // What every save of the list costs the window (the save itself is measured with the store).
    const double listChange = Bench::medianMs(runs, [&] {
        emit chats.conversationsChanged();
        settle();
    });
    Bench::report("list changed (sidebar and transcript check)", listChange, "ms");
    return 0;
}
