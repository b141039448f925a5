// Replies no model should send but any server can: one line of a megabyte, a code block of
// 100,000 lines, a table of 2,000 columns, a table cell or heading of a megabyte, 10,000 nested
// quotes, and 32 MB of short lines. For each, the time to open it in a message bubble (laid out
// at a window's width and painted), the longest and the median step while it streams in
// 40 pieces, and the process's peak resident memory so far. Times are the main thread's CPU time,
// which is what keeps the window from answering and does not count waiting for a busy machine;
// colouring large code runs on another thread and is not in them.
#include "harness.h"
#include "ui/messagebubble.h"

#include <QApplication>
#include <QPixmap>

namespace {

QString tableOf(int columns, int rows, const QString &cell)
{
    QString text = QStringLiteral("|");
    for (int c = 0; c < columns; ++c)
        text += QStringLiteral(" h%1 |").arg(c);
    text += QStringLiteral("\n|") + QStringLiteral("---|").repeated(columns) + QLatin1Char('\n');
    for (int r = 0; r < rows; ++r)
        text += QLatin1Char('|') + QString(QLatin1Char(' ') + cell + QStringLiteral(" |")).repeated(columns) +
                QLatin1Char('\n');
    return text;
}

QString codeLines(int count)
{
    QString code = QStringLiteral("```python\n");
    for (int i = 0; i < count; ++i)
        code += QStringLiteral("x_%1 = %1  # line\n").arg(i);
    return code + QStringLiteral("```\n");
}

void show(MessageBubble &bubble)
{
    const int width = 700;
    bubble.resize(width, bubble.heightForWidth(width));
    QPixmap target(width, 800);
    bubble.render(&target, QPoint(), QRegion(0, 0, width, 800));
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);

    const QString mega(1 << 20, QLatin1Char('x'));
    const QList<std::pair<const char *, QString>> shapes{
        {"1 MB line without spaces", mega},
        {"huge word in a paragraph", QStringLiteral("Some words, then ") + mega + QStringLiteral(" and more.")},
        {"1 MB heading", QStringLiteral("# ") + mega},
        {"100,000-line code block", codeLines(100000)},
        {"2,000-column table", tableOf(2000, 3, QStringLiteral("cell"))},
        {"table cell of 1 MB", tableOf(2, 1, mega)},
        {"10,000 nested quotes", QStringLiteral(">").repeated(10000) + QStringLiteral(" deep")},
        {"32 MB of short lines", QStringLiteral("a line of prose\n").repeated(2 << 20)},
    };
    for (const auto &[name, text] : shapes) {
        std::vector<double> opens;
        for (int run = 0; run < 3; ++run) {
            const double start = Bench::threadCpuSeconds();
            MessageBubble bubble(ChatMessage(ChatRole::assistant, text));
            show(bubble);
            opens.push_back((Bench::threadCpuSeconds() - start) * 1000);
        }
        ChatMessage message(ChatRole::assistant, QString());
        MessageBubble streamed(message);
        std::vector<double> steps;
        const int pieces = 40;
        for (int step = 1; step <= pieces; ++step) {
            message.content = text.first(text.size() * step / pieces);
            const double start = Bench::threadCpuSeconds();
            streamed.setMessage(message);
            show(streamed);
            steps.push_back((Bench::threadCpuSeconds() - start) * 1000);
        }
        std::printf("%s\n", name);
        Bench::report("  open, main thread CPU (median of 3)", Bench::median(opens), "ms");
        Bench::report("  streamed step, main thread CPU, median", Bench::median(steps), "ms");
        Bench::report("  streamed step, main thread CPU, longest", *std::max_element(steps.begin(), steps.end()), "ms");
        Bench::report("  peak resident memory so far", Bench::statusKb("VmHWM") / 1024.0, "MiB");
    }
    return 0;
}
