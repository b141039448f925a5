// The transcript while a long reply streams in, and with long conversations: the 20,000-token
// reply streamed over loopback in pieces of about four characters, one transcript update per
// 50 ms of a simulated clock (five pieces), each update laid out and painted at once; a
// conversation of 1,000 messages opened; a window of 200 messages resized. The naive Qt
// transcript (QTextDocument::setMarkdown of the whole reply, laid out and painted at every
// update) is measured in the same run on the same updates.
#include "chat/chatviewmodel.h"
#include "harness.h"
#include "providerthread.h"
#include "render/markdowntext.h"
#include "render/syntaxhighlighter.h"
#include "ui/scrollcontroller.h"
#include "ui/transcriptview.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QEventLoop>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QScrollBar>
#include <QTextDocument>
#include <QTimer>

#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <vector>

namespace {

constexpr int viewWidth = 760;
constexpr int viewHeight = 900;
// Seconds of the simulated clock per streamed piece: 100 pieces a second.
constexpr double pieceSeconds = 0.01;
// The naive transcript is measured on every sampleStride-th update (and scaled up) and on the
// last lastCount updates: all of them would take minutes.
constexpr std::size_t sampleStride = 40;
constexpr std::size_t lastCount = 20;

void settle()
{
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
}

// One window's transcript, shown at the bench's size, over a conversation of these messages.
// beforeView runs before the transcript connects to the view model, so its own connections run
// first on every change.
struct Window
{
    ChatViewModel chat;
    ScrollController scroll;
    std::unique_ptr<TranscriptView> view;

    explicit Window(const QList<ChatMessage> &messages, const std::function<void(ChatViewModel &)> &beforeView = {})
    {
        if (beforeView)
            beforeView(chat);
        Conversation conversation;
        conversation.id = QUuid::createUuid();
        conversation.messages = messages;
        chat.activate(conversation);
        view = std::make_unique<TranscriptView>(&chat, &scroll);
        view->resize(viewWidth, viewHeight);
        view->show();
    }
};

struct StreamFigures
{
    std::vector<double> updateMs; // transcript update plus paint, per update
    std::vector<QString> sampled; // the reply's text at every sampleStride-th update
    std::vector<QString> last;    // ... and at the last lastCount updates
    double mainCpu = 0;
    double rssBefore = 0;
    double rssAfter = 0;
    qsizetype replyLength = 0;
};

StreamFigures streamReply(const Provider &provider, bool keepPrefixes)
{
    StreamFigures figures;
    QElapsedTimer timer;
    double now = 1000;
    Window window({}, [&](ChatViewModel &chat) {
        chat.setClock([&] { return std::exchange(now, now + pieceSeconds); });
        QObject::connect(&chat, &ChatViewModel::messageChanged, &chat, [&] { timer.start(); });
    });
    ChatViewModel &chat = window.chat;
    settle();
    QObject::connect(&chat, &ChatViewModel::messageChanged, &chat, [&](qsizetype index) {
        // Every update is painted before the next one, as the window's repaint would paint it:
        // what the update marked dirty, nothing skipped or merged.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::UpdateRequest);
        figures.updateMs.push_back(double(timer.nsecsElapsed()) / 1e6);
        if (keepPrefixes) {
            const QString &text = chat.messages().at(index).content;
            if ((figures.updateMs.size() - 1) % sampleStride == 0)
                figures.sampled.push_back(text);
            figures.last.push_back(text);
            if (figures.last.size() > lastCount)
                figures.last.erase(figures.last.begin());
        }
    });
    QEventLoop loop;
    chat.setOnStreamEnd([&] {
        if (!chat.isStreaming())
            loop.quit();
    });

    figures.rssBefore = Bench::residentMiB();
    const double cpuStart = Bench::threadCpuSeconds();
    chat.setInput(QStringLiteral("Write the long answer."));
    chat.send(provider);
    loop.exec();
    figures.mainCpu = Bench::threadCpuSeconds() - cpuStart;
    // "After" is once the reply has wound down: a moment later, as the user would look.
    QTimer::singleShot(1500, &loop, &QEventLoop::quit);
    loop.exec();
    figures.rssAfter = Bench::residentMiB();
    figures.replyLength = chat.messages().last().content.size();
    return figures;
}

// The naive transcript: the whole reply through QTextDocument at every update, laid out at the
// bubble's width and the visible bottom of it painted.
double naiveUpdateMs(const QString &text)
{
    QElapsedTimer timer;
    timer.start();
    QTextDocument document;
    document.setMarkdown(text);
    document.setTextWidth(viewWidth - 100);
    const qreal height = document.size().height();
    QImage image(viewWidth, viewHeight, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::white);
    QPainter painter(&image);
    const qreal top = std::max<qreal>(0, height - viewHeight);
    painter.translate(0, -top);
    document.drawContents(&painter, QRectF(0, top, viewWidth, viewHeight));
    return double(timer.nsecsElapsed()) / 1e6;
}

QList<ChatMessage> makeHistory(int count)
{
    QList<ChatMessage> messages;
    messages.reserve(count);
    for (int i = 0; i < count; ++i) {
        if (i % 2 == 0) {
            messages.append(
                ChatMessage(ChatRole::user, QStringLiteral("Question %1: how does *this* part work?").arg(i)));
            continue;
        }
        QString text =
            QStringLiteral("## Answer %1\n\nIt works like **this**: the `layout` is cached per width, and "
                           "only [what changed](https://example.com/%1) is drawn again. Größer, café, 日本語.\n\n"
                           "- first point of the answer\n- second point, a little longer than the first\n\n")
                .arg(i);
        if (i % 3 == 1)
            text += QStringLiteral("```python\ndef answer(x):\n    # the reply's own code\n    return x * %1\n```\n")
                        .arg(i);
        if (i % 5 == 1)
            text += QStringLiteral("\n| Key | Value |\n|---|---|\n| a | %1 |\n| b | two |\n").arg(i);
        messages.append(ChatMessage(ChatRole::assistant, text, TokenUsage{120, 340, 460}));
    }
    return messages;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);

    QFile file(Bench::dataDir() + QStringLiteral("/reply-20k-tokens.md"));
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "bench_transcript: cannot read %s\n", qPrintable(file.fileName()));
        return 1;
    }
    MockProviderOptions options;
    options.reply = QString::fromUtf8(file.readAll());

    Bench::ProviderThread providerThread(options);
    if (!providerThread.isListening()) {
        std::fprintf(stderr, "bench_transcript: the provider cannot listen\n");
        return 1;
    }
    const Provider provider = providerThread.provider();

    int status = 0;
    // The first turn ever also pays for loading fonts and filling glyph caches once per process.
    const StreamFigures cold = streamReply(provider, false);
    // The memory figure: a turn in a process that has drawn text before.
    const StreamFigures first = streamReply(provider, false);
    std::vector<double> lastUpdates, wholeCpu;
    StreamFigures sampled;
    for (int run = 0; run < 5; ++run) {
        StreamFigures f = streamReply(provider, run == 4);
        if (f.replyLength != options.reply.size()) {
            std::fprintf(stderr, "bench_transcript: the reply arrived incomplete\n");
            status = 1;
        }
        const std::size_t n = f.updateMs.size();
        for (std::size_t i = n > lastCount ? n - lastCount : 0; i < n; ++i)
            lastUpdates.push_back(f.updateMs[i]);
        wholeCpu.push_back(f.mainCpu);
        if (run == 4)
            sampled = std::move(f);
    }
    const double rssAfterRuns = Bench::residentMiB();

    Bench::report("stream: updates per reply", double(first.updateMs.size()), "updates");
    Bench::report("stream: one update at the end (median)", Bench::median(lastUpdates), "ms");
    Bench::report("stream: CPU for the whole reply (median)", Bench::median(wholeCpu) * 1000, "ms");
    Bench::report("stream: resident memory before", first.rssBefore, "MB");
    Bench::report("stream: resident memory after", first.rssAfter, "MB");
    Bench::report("stream: resident memory growth", first.rssAfter - first.rssBefore, "MB");
    Bench::report("stream: growth, first turn of the process", cold.rssAfter - cold.rssBefore, "MB");
    Bench::report("stream: resident memory after 6 replies", rssAfterRuns, "MB");

    std::vector<double> naiveLast;
    for (const QString &text : sampled.last)
        naiveLast.push_back(naiveUpdateMs(text));
    const double naiveStart = Bench::threadCpuSeconds();
    for (const QString &text : sampled.sampled)
        naiveUpdateMs(text);
    const double naiveCpu = (Bench::threadCpuSeconds() - naiveStart) * double(sampleStride);
    Bench::report("naive: one update at the end (median)", Bench::median(naiveLast), "ms");
    Bench::report("naive: CPU for the whole reply (sampled, scaled)", naiveCpu * 1000, "ms");

    // Opening a long conversation: from activation to the first painted frame.
    for (int count : {1000, 200}) {
        const QList<ChatMessage> messages = makeHistory(count);
        std::vector<double> open;
        for (int run = 0; run < 7; ++run) {
            MarkdownText::clearCache();
            SyntaxHighlighter::clearCache();
            QElapsedTimer timer;
            timer.start();
            Window window(messages);
            const QImage frame = window.view->grab().toImage();
            open.push_back(double(timer.nsecsElapsed()) / 1e6);
            if (frame.isNull())
                status = 1;
        }
        const QByteArray name = QByteArray("open: first paint, ") + QByteArray::number(count) + " messages (median)";
        Bench::report(name.constData(), Bench::median(open), "ms");
    }

    // A window of 200 messages resized, at its end and in its middle.
    {
        Window window(makeHistory(200));
        TranscriptView &view = *window.view;
        settle();
        for (bool middle : {false, true}) {
            if (middle)
                view.area()->verticalScrollBar()->setValue(view.area()->verticalScrollBar()->maximum() / 2);
            settle();
            int width = viewWidth;
            std::vector<double> layoutOnly, withPaint;
            for (int run = 0; run < 15; ++run) {
                width = width == viewWidth ? viewWidth - 140 : viewWidth;
                QElapsedTimer timer;
                timer.start();
                view.resize(width, viewHeight);
                layoutOnly.push_back(double(timer.nsecsElapsed()) / 1e6);
                view.repaint();
                withPaint.push_back(double(timer.nsecsElapsed()) / 1e6);
            }
            Bench::report(middle ? "resize: 200 messages, middle, relayout" : "resize: 200 messages, end, relayout",
                          Bench::median(layoutOnly), "ms");
            Bench::report(middle ? "resize: 200 messages, middle, relayout+paint"
                                 : "resize: 200 messages, end, relayout+paint",
                          Bench::median(withPaint), "ms");
        }
    }

    return status;
}
