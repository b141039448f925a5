// A 10 MB text in the composer, as a person pastes one: the cost of each key typed after it (with
// the text in lines, and a 1 MB text in one line), of sending it, and of opening the conversation
// that holds it afterwards, in the real content view on the offscreen platform.
#include "chat/chatviewmodel.h"
#include "harness.h"
#include "storage/conversationstore.h"
#include "storage/providerstore.h"
#include "ui/composereditor.h"
#include "ui/composerfield.h"
#include "ui/composerrow.h"
#include "ui/contentview.h"

#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QPlainTextEdit>
#include <QTemporaryDir>

namespace {

void settle()
{
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
}

// One key as the keyboard sends it: press and release, then whatever the window does about it,
// painting included.
double typeKey(ContentView &view, QWidget *editor, QChar c)
{
    QElapsedTimer timer;
    timer.start();
    QKeyEvent press(QEvent::KeyPress, Qt::Key_A, Qt::NoModifier, QString(c));
    QKeyEvent release(QEvent::KeyRelease, Qt::Key_A, Qt::NoModifier, QString(c));
    QCoreApplication::sendEvent(editor, &press);
    QCoreApplication::sendEvent(editor, &release);
    settle();
    view.repaint();
    return double(timer.nsecsElapsed()) / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    Bench::ScratchProfile dir;
    if (!dir.isValid())
        return 1;
    QApplication app(argc, argv);

    ProviderStore providers;
    providers.add(Provider{QUuid::createUuid(), QStringLiteral("P"), {}, {}, {}, {}, {}});
    ConversationStore chats(dir.filePath(QStringLiteral("conversations.json")));
    ContentView view(&providers, &chats);
    view.resize(1000, 700);
    view.show();
    settle();
    ComposerEditor *editor = view.composerRow()->composer()->editor();

    const QString line = QStringLiteral("The quick brown fox jumps over the lazy dog, café 日本語 0123456789 ok.\n");
    const struct
    {
        const char *name;
        QString text;
    } cases[] = {
        {"10 MB in lines of 80", line.repeated(10'000'000 / line.toUtf8().size())},
        {"1 MB in one line", QString(line).remove(u'\n').repeated(1'000'000 / line.toUtf8().size())},
    };
    for (const auto &c : cases) {
        QElapsedTimer paste;
        paste.start();
        QApplication::clipboard()->setText(c.text);
        editor->paste();
        settle();
        view.repaint();
        Bench::report(QByteArray(QByteArray(c.name) + ", paste").constData(), double(paste.nsecsElapsed()) / 1e6, "ms");
        std::vector<double> keys;
        for (int i = 0; i < 20; ++i)
            keys.push_back(typeKey(view, editor, QLatin1Char('a' + i % 26)));
        Bench::report(QByteArray(QByteArray(c.name) + ", per key, median").constData(), Bench::median(keys), "ms");
        Bench::report(QByteArray(QByteArray(c.name) + ", per key, worst").constData(),
                      *std::max_element(keys.begin(), keys.end()), "ms");
        view.composerRow()->composer()->setText(QString());
        settle();
    }

    // Sending the 10 MB text: from Return to the window drawn again, the question answered at once.
    view.setLargeSendQuestion([](qint64) { return true; });
    view.composerRow()->composer()->setText(cases[0].text);
    settle();
    QElapsedTimer send;
    send.start();
    QKeyEvent enter(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
    QCoreApplication::sendEvent(editor, &enter);
    const double handled = double(send.nsecsElapsed()) / 1e6;
    settle();
    const double settled = double(send.nsecsElapsed()) / 1e6;
    view.repaint();
    Bench::report("10 MB message, send handled", handled, "ms");
    Bench::report("10 MB message, send to settled", settled, "ms");
    Bench::report("10 MB message, send to drawn", double(send.nsecsElapsed()) / 1e6, "ms");
    chats.waitForSaved();

    // A start with that conversation newest: the store read from the file, then a window shown.
    QElapsedTimer start;
    start.start();
    ConversationStore reread(dir.filePath(QStringLiteral("conversations.json")));
    ContentView opened(&providers, &reread);
    opened.resize(1000, 700);
    opened.show();
    settle();
    opened.repaint();
    Bench::report("10 MB message, load and first window", double(start.nsecsElapsed()) / 1e6, "ms");
    return 0;
}
