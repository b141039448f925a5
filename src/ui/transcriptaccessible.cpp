#include "ui/transcriptaccessible.h"

#include "chat/chatviewmodel.h"
#include "render/inlinemarkdown.h"
#include "render/readingtext.h"
#include "ui/codeblockview.h"
#include "ui/markdowntextview.h"
#include "ui/messagebubble.h"
#include "ui/tableblockview.h"
#include "ui/transcriptview.h"

#include <QAccessibleWidget>
#include <QClipboard>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QHash>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPointer>
#include <QScrollBar>
#include <QTextBoundaryFinder>
#include <QToolButton>
#include <QUrl>

#include <tuple>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

using Kind = MarkdownText::Block::Kind;

// How much of a message a screen reader gets as text, and how much of it as the spoken
// description: a huge reply costs what is read, and nobody listens to a novel in one go.
constexpr qsizetype textLimit = 100'000;
constexpr qsizetype descriptionLimit = 4000;
// Code lines listed one by one; the whole code stays readable through the block's text.
constexpr int lineItemLimit = 5000;

QString copyMarkdownAction()
{
    return MessageBubble::tr("Copy Markdown");
}

QString bounded(const QString &text, qsizetype limit)
{
    if (text.size() <= limit)
        return text;
    return text.left(limit) + QChar(0x2026);
}

QAccessibleInterface *interfaceOf(const QWidget *widget)
{
    return widget ? QAccessible::queryAccessibleInterface(const_cast<QWidget *>(widget)) : nullptr;
}

QRect screenRect(const QWidget *widget, const QRect &local)
{
    if (!widget)
        return {};
    return QRect(widget->mapToGlobal(local.topLeft()), local.size());
}

// The segment of text around offset that a boundary type makes, as [start, end).
std::pair<int, int> segmentAt(const QString &text, int offset, QAccessible::TextBoundaryType type)
{
    const int n = int(text.size());
    offset = std::clamp(offset, 0, n);
    switch (type) {
    case QAccessible::CharBoundary:
        return {offset, std::min(n, offset + 1)};
    case QAccessible::LineBoundary:
    case QAccessible::ParagraphBoundary: {
        const int start = offset == 0 ? 0 : int(text.lastIndexOf(u'\n', offset - 1)) + 1;
        const int feed = int(text.indexOf(u'\n', offset));
        return {start, feed < 0 ? n : feed + 1};
    }
    case QAccessible::WordBoundary:
    case QAccessible::SentenceBoundary: {
        QTextBoundaryFinder finder(
            type == QAccessible::WordBoundary ? QTextBoundaryFinder::Word : QTextBoundaryFinder::Sentence, text);
        finder.setPosition(offset);
        const int start = finder.isAtBoundary() ? offset : int(finder.toPreviousBoundary());
        finder.setPosition(offset);
        const int end = int(finder.toNextBoundary());
        return {std::max(0, start), end < 0 ? n : end};
    }
    case QAccessible::NoBoundary:
        break;
    }
    return {0, n};
}

// Read-only text for a screen reader's caret: characters, words, sentences and lines of a
// text computed on demand. Nothing is selectable and there is no caret of our own.
class ReadableText : public QAccessibleTextInterface
{
public:
    virtual QString readableText() const = 0;

    void selection(int, int *start, int *end) const override { *start = *end = 0; }
    int selectionCount() const override { return 0; }
    void addSelection(int, int) override {}
    void removeSelection(int) override {}
    void setSelection(int, int, int) override {}
    int cursorPosition() const override { return 0; }
    void setCursorPosition(int) override {}
    QString text(int start, int end) const override
    {
        const QString all = readableText();
        start = std::clamp(start, 0, int(all.size()));
        end = end < 0 ? int(all.size()) : std::clamp(end, start, int(all.size()));
        return all.mid(start, end - start);
    }
    QString textBeforeOffset(int offset, QAccessible::TextBoundaryType type, int *start, int *end) const override
    {
        const QString all = readableText();
        const auto [s, e] = segmentAt(all, offset, type);
        Q_UNUSED(e);
        if (s <= 0) {
            *start = *end = 0;
            return {};
        }
        std::tie(*start, *end) = segmentAt(all, s - 1, type);
        return all.mid(*start, *end - *start);
    }
    QString textAfterOffset(int offset, QAccessible::TextBoundaryType type, int *start, int *end) const override
    {
        const QString all = readableText();
        const auto [s, e] = segmentAt(all, offset, type);
        Q_UNUSED(s);
        if (e >= all.size()) {
            *start = *end = int(all.size());
            return {};
        }
        std::tie(*start, *end) = segmentAt(all, e, type);
        return all.mid(*start, *end - *start);
    }
    QString textAtOffset(int offset, QAccessible::TextBoundaryType type, int *start, int *end) const override
    {
        const QString all = readableText();
        std::tie(*start, *end) = segmentAt(all, offset, type);
        return all.mid(*start, *end - *start);
    }
    int characterCount() const override { return int(readableText().size()); }
    QRect characterRect(int) const override { return {}; }
    int offsetAtPoint(const QPoint &) const override { return -1; }
    void scrollToSubstring(int, int) override {}
    QString attributes(int, int *start, int *end) const override
    {
        *start = 0;
        *end = characterCount();
        return {};
    }
};

// What a message reads as: its role with the usage line as the name, its shown text (not its
// Markdown) as the text and the spoken description. The shown text is worked out once per
// content, and only as far as it is read.
class MessageReading
{
public:
    static QString name(const ChatMessage &message)
    {
        const QString usage = MessageBubble::usagePart(message.usage);
        return usage.isEmpty() ? MessageBubble::roleLabel(message.role)
                               : MessageBubble::roleLabel(message.role) + u' ' + usage;
    }

    const QString &text(const ChatMessage &message) const
    {
        if (m_content.isNull() || m_content.size() != message.content.size() || m_content != message.content) {
            m_content = message.content.isNull() ? u""_s : message.content;
            m_text = message.content.isEmpty() ? QString(QChar(0x2026))
                                               : ReadingText::markdownText(message.content, textLimit);
        }
        return m_text;
    }

    QString description(const ChatMessage &message) const { return bounded(text(message), descriptionLimit); }

private:
    mutable QString m_content;
    mutable QString m_text;
};

void copyMarkdown(const QString &markdown)
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(markdown);
}

TranscriptArea *transcriptOf(const QWidget *widget)
{
    for (QWidget *w = widget ? widget->parentWidget() : nullptr; w; w = w->parentWidget()) {
        if (auto *area = qobject_cast<TranscriptArea *>(w))
            return area;
    }
    return nullptr;
}

MessageBubble *bubbleOf(const QWidget *widget)
{
    for (QWidget *w = widget ? widget->parentWidget() : nullptr; w; w = w->parentWidget()) {
        if (auto *bubble = qobject_cast<MessageBubble *>(w))
            return bubble;
    }
    return nullptr;
}

// A message whose bubble is not built: read from the view model, placed where its row is.
class MessageStandIn final : public QAccessibleInterface, public ReadableText, public QAccessibleActionInterface
{
public:
    MessageStandIn(TranscriptArea *area, const QUuid &id)
        : m_area(area)
        , m_id(id)
    {}

    bool isValid() const override { return m_area && index() >= 0; }
    QObject *object() const override { return nullptr; }
    QWindow *window() const override { return m_area ? m_area->window()->windowHandle() : nullptr; }
    QAccessibleInterface *childAt(int, int) const override { return nullptr; }
    QAccessibleInterface *parent() const override { return interfaceOf(m_area); }
    QAccessibleInterface *child(int) const override { return nullptr; }
    int childCount() const override { return 0; }
    int indexOfChild(const QAccessibleInterface *) const override { return -1; }
    QAccessible::Role role() const override { return QAccessible::ListItem; }
    QAccessible::State state() const override
    {
        QAccessible::State state;
        state.invisible = true;
        state.offscreen = true;
        state.readOnly = true;
        return state;
    }
    QRect rect() const override
    {
        const qsizetype i = index();
        if (i < 0)
            return {};
        const int top = m_area->rowTop(i) - m_area->verticalScrollBar()->value();
        const int bottom = i + 1 < m_area->messageCount() ? m_area->rowTop(i + 1) - TranscriptArea::stackSpacing
                                                          : m_area->anchorBottom();
        return screenRect(m_area->viewport(), QRect(0, top, m_area->viewport()->width(),
                                                    std::max(1, bottom - m_area->verticalScrollBar()->value() - top)));
    }
    void setText(QAccessible::Text, const QString &) override {}
    QString text(QAccessible::Text t) const override
    {
        const ChatMessage *m = message();
        if (!m)
            return {};
        if (t == QAccessible::Name)
            return MessageReading::name(*m);
        if (t == QAccessible::Description)
            return m_reading.description(*m);
        return {};
    }
    void *interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::TextInterface)
            return static_cast<QAccessibleTextInterface *>(this);
        if (type == QAccessible::ActionInterface)
            return static_cast<QAccessibleActionInterface *>(this);
        return nullptr;
    }

    QString readableText() const override
    {
        const ChatMessage *m = message();
        return m ? m_reading.text(*m) : QString();
    }

    QStringList actionNames() const override { return {copyMarkdownAction()}; }
    void doAction(const QString &name) override
    {
        if (const ChatMessage *m = message(); m && name == copyMarkdownAction())
            copyMarkdown(m->content);
    }
    QStringList keyBindingsForAction(const QString &) const override { return {}; }

    qsizetype index() const
    {
        if (!m_area)
            return -1;
        const QList<ChatMessage> &messages = m_area->chat()->messages();
        for (qsizetype i = 0; i < messages.size(); ++i) {
            if (messages.at(i).id == m_id)
                return i;
        }
        return -1;
    }

private:
    const ChatMessage *message() const
    {
        const qsizetype i = index();
        return i < 0 ? nullptr : &m_area->chat()->messages().at(i);
    }

    QPointer<TranscriptArea> m_area;
    QUuid m_id;
    MessageReading m_reading;
};

// The transcript as a list of all its messages, then the error line when shown.
class TranscriptAccessible final : public QAccessibleWidget
{
public:
    explicit TranscriptAccessible(TranscriptArea *area)
        : QAccessibleWidget(area, QAccessible::List)
    {}
    ~TranscriptAccessible() override
    {
        for (QAccessible::Id id : std::as_const(m_standIns))
            QAccessible::deleteAccessibleInterface(id);
    }

    TranscriptArea *area() const { return static_cast<TranscriptArea *>(widget()); }

    int childCount() const override
    {
        const QWidget *error = area()->errorLabel();
        return int(area()->messageCount()) + (error->isHidden() ? 0 : 1);
    }

    QAccessibleInterface *child(int index) const override
    {
        TranscriptArea *a = area();
        if (index < 0 || index >= childCount())
            return nullptr;
        if (index >= a->messageCount())
            return QAccessible::queryAccessibleInterface(a->errorLabel());
        if (MessageBubble *bubble = a->bubbleAt(index))
            return QAccessible::queryAccessibleInterface(bubble);
        const QUuid id = a->chat()->messages().at(index).id;
        auto it = m_standIns.constFind(id);
        if (it != m_standIns.constEnd()) {
            if (QAccessibleInterface *existing = QAccessible::accessibleInterface(*it))
                return existing;
        }
        auto *standIn = new MessageStandIn(a, id);
        m_standIns.insert(id, QAccessible::registerAccessibleInterface(standIn));
        return standIn;
    }

    int indexOfChild(const QAccessibleInterface *child) const override
    {
        if (!child)
            return -1;
        if (child->object() == area()->errorLabel())
            return int(area()->messageCount());
        if (const auto *bubble = qobject_cast<const MessageBubble *>(child->object())) {
            for (qsizetype i = 0; i < area()->messageCount(); ++i) {
                if (area()->bubbleAt(i) == bubble)
                    return int(i);
            }
            return -1;
        }
        if (const auto *standIn = dynamic_cast<const MessageStandIn *>(child))
            return int(standIn->index());
        return -1;
    }

private:
    mutable QHash<QUuid, QAccessible::Id> m_standIns;
};

// A built message: the same reading as a stand-in, and as children what the bubble shows that
// can be moved through or pressed: its copy buttons and its blocks, in reading order.
class BubbleAccessible final : public QAccessibleWidget, public ReadableText
{
public:
    explicit BubbleAccessible(MessageBubble *bubble)
        : QAccessibleWidget(bubble, QAccessible::ListItem)
    {}

    MessageBubble *bubble() const { return static_cast<MessageBubble *>(widget()); }

    QAccessibleInterface *parent() const override
    {
        if (TranscriptArea *area = transcriptOf(widget()))
            return interfaceOf(area);
        return QAccessibleWidget::parent();
    }

    QString text(QAccessible::Text t) const override
    {
        if (t == QAccessible::Name)
            return MessageReading::name(bubble()->message());
        if (t == QAccessible::Description)
            return m_reading.description(bubble()->message());
        return QAccessibleWidget::text(t);
    }

    QAccessible::State state() const override
    {
        QAccessible::State state = QAccessibleWidget::state();
        state.readOnly = true;
        // The keyboard moves from message to message; a click never takes the focus from the composer.
        state.focusable = true;
        return state;
    }

    QList<QWidget *> parts() const
    {
        QList<QWidget *> parts;
        MessageBubble *b = bubble();
        const auto addShown = [&parts](QWidget *w) {
            if (w && !w->isHidden())
                parts.append(w);
        };
        addShown(b->headerCopyButton());
        addShown(b->editor());
        if (!b->markdownView()->isHidden()) {
            for (MarkdownBlockView *view : b->markdownView()->blockViews())
                parts.append(view);
        }
        addShown(b->expandButton());
        // The footer's controls, in the order they are drawn.
        addShown(b->footerCopyButton());
        addShown(b->editButton());
        addShown(b->regenerateButton());
        addShown(b->versionSwitcher());
        return parts;
    }

    int childCount() const override { return int(parts().size()); }
    QAccessibleInterface *child(int index) const override
    {
        const QList<QWidget *> list = parts();
        return index >= 0 && index < list.size() ? interfaceOf(list.at(index)) : nullptr;
    }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        if (!child || !child->object() || !child->object()->isWidgetType())
            return -1;
        return int(parts().indexOf(static_cast<QWidget *>(child->object())));
    }

    void *interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::TextInterface)
            return static_cast<QAccessibleTextInterface *>(this);
        return QAccessibleWidget::interface_cast(type);
    }
    QString readableText() const override { return m_reading.text(bubble()->message()); }

    QStringList actionNames() const override
    {
        QStringList names = QAccessibleWidget::actionNames();
        if (!bubble()->message().content.isEmpty())
            names.append(copyMarkdownAction());
        return names;
    }
    void doAction(const QString &name) override
    {
        if (name == copyMarkdownAction())
            bubble()->copy();
        else
            QAccessibleWidget::doAction(name);
    }

private:
    MessageReading m_reading;
};

// A block of a message belongs to the message, not to the stack that places it.
class BlockAccessible : public QAccessibleWidget
{
public:
    BlockAccessible(QWidget *block, QAccessible::Role role)
        : QAccessibleWidget(block, role)
    {}

    QAccessibleInterface *parent() const override
    {
        if (MessageBubble *bubble = bubbleOf(widget()))
            return interfaceOf(bubble);
        return QAccessibleWidget::parent();
    }
    QAccessible::State state() const override
    {
        QAccessible::State state = QAccessibleWidget::state();
        state.readOnly = true;
        return state;
    }
};

// A child of a block that is no widget of its own (a link, a code line, a table cell). It
// lives as long as its block's interface and reads its block afresh each time, so a block that
// changes while a reader holds the child never shows stale text.
class BlockPart : public QAccessibleInterface
{
public:
    BlockPart(QWidget *block, int index)
        : m_block(block)
        , m_index(index)
    {}

    bool isValid() const override { return m_block && m_index < partCount(); }
    QObject *object() const override { return nullptr; }
    QWindow *window() const override { return m_block ? m_block->window()->windowHandle() : nullptr; }
    QAccessibleInterface *childAt(int, int) const override { return nullptr; }
    QAccessibleInterface *parent() const override { return interfaceOf(m_block); }
    QAccessibleInterface *child(int) const override { return nullptr; }
    int childCount() const override { return 0; }
    int indexOfChild(const QAccessibleInterface *) const override { return -1; }
    QAccessible::State state() const override
    {
        QAccessible::State state;
        state.readOnly = true;
        if (!m_block || !m_block->isVisible())
            state.invisible = true;
        return state;
    }
    QRect rect() const override { return m_block ? screenRect(m_block, m_block->rect()) : QRect(); }
    void setText(QAccessible::Text, const QString &) override {}

    int index() const { return m_index; }
    virtual int partCount() const = 0;

protected:
    QPointer<QWidget> m_block;
    int m_index;
};

// Children of one block made on demand and kept with the block's interface.
class PartCache
{
public:
    Q_DISABLE_COPY_MOVE(PartCache)
    PartCache() = default;
    ~PartCache()
    {
        for (QAccessible::Id id : std::as_const(m_ids))
            QAccessible::deleteAccessibleInterface(id);
    }

    template<typename Make>
    QAccessibleInterface *get(int index, Make make) const
    {
        auto it = m_ids.constFind(index);
        if (it != m_ids.constEnd()) {
            if (QAccessibleInterface *existing = QAccessible::accessibleInterface(*it))
                return existing;
        }
        QAccessibleInterface *part = make();
        m_ids.insert(index, QAccessible::registerAccessibleInterface(part));
        return part;
    }

private:
    mutable QHash<int, QAccessible::Id> m_ids;
};

class LinkPart final : public BlockPart, public QAccessibleActionInterface
{
public:
    using BlockPart::BlockPart;

    QAccessible::Role role() const override { return QAccessible::Link; }
    int partCount() const override { return int(reading().links.size()); }
    QString text(QAccessible::Text t) const override
    {
        const ReadingText::Inline inl = reading();
        if (m_index >= inl.links.size())
            return {};
        const ReadingText::Link &link = inl.links.at(m_index);
        if (t == QAccessible::Name)
            return inl.text.mid(link.start, link.length);
        if (t == QAccessible::Description)
            return link.target;
        return {};
    }
    void *interface_cast(QAccessible::InterfaceType type) override
    {
        return type == QAccessible::ActionInterface ? static_cast<QAccessibleActionInterface *>(this) : nullptr;
    }
    QStringList actionNames() const override
    {
        return InlineMarkdown::isOpenableLink(text(QAccessible::Description)) ? QStringList{pressAction()}
                                                                              : QStringList();
    }
    void doAction(const QString &name) override
    {
        // The same rule as a click: only web and mail links leave the program.
        const QString target = text(QAccessible::Description);
        if (name == pressAction() && InlineMarkdown::isOpenableLink(target))
            QDesktopServices::openUrl(QUrl(target));
    }
    QStringList keyBindingsForAction(const QString &) const override { return {}; }

private:
    ReadingText::Inline reading() const
    {
        const auto *view = qobject_cast<const TextBlockView *>(m_block.data());
        return view ? ReadingText::inlineText(view->block().text) : ReadingText::Inline();
    }
};

// Headings, paragraphs, list items and quotes read as their shown text; their links are
// children, named by their text and described by their target.
class TextBlockAccessible final : public BlockAccessible
{
public:
    explicit TextBlockAccessible(TextBlockView *view)
        : BlockAccessible(view, QAccessible::Paragraph)
    {}

    const TextBlockView *view() const { return static_cast<const TextBlockView *>(widget()); }

    QAccessible::Role role() const override
    {
        switch (view()->block().kind) {
        case Kind::Heading:
            return QAccessible::Heading;
        case Kind::Bullet:
        case Kind::Ordered:
            return QAccessible::ListItem;
        default:
            return QAccessible::Paragraph;
        }
    }
    QString text(QAccessible::Text t) const override
    {
        if (t == QAccessible::Name)
            return bounded(ReadingText::blockText(view()->block()), textLimit);
        if (t == QAccessible::Description)
            return view()->block().kind == Kind::Quote ? u"Quote"_s : QString();
        return {};
    }
    int childCount() const override { return int(ReadingText::inlineText(view()->block().text).links.size()); }
    QAccessibleInterface *child(int index) const override
    {
        if (index < 0 || index >= childCount())
            return nullptr;
        return m_links.get(index, [&] { return new LinkPart(widget(), index); });
    }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        const auto *link = dynamic_cast<const LinkPart *>(child);
        return link && link->parent() == this ? link->index() : -1;
    }

private:
    PartCache m_links;
};

class CodeBlockAccessible;

class CodeLinePart final : public BlockPart
{
public:
    using BlockPart::BlockPart;

    QAccessible::Role role() const override { return QAccessible::StaticText; }
    int partCount() const override;
    QString text(QAccessible::Text t) const override;
};

// A code block names itself by its language and reads its code line by line, each line a child
// before the copy button; the code as a whole is its text.
class CodeBlockAccessible final : public BlockAccessible, public ReadableText
{
public:
    explicit CodeBlockAccessible(CodeBlockView *view)
        : BlockAccessible(view, QAccessible::Section)
    {}

    const CodeBlockView *view() const { return static_cast<const CodeBlockView *>(widget()); }

    QString text(QAccessible::Text t) const override
    {
        // The label shows the language, or "code" when there is none.
        if (t == QAccessible::Name) {
            const QString label = view()->label();
            return ReadingText::codeName(label == ReadingText::codeLabel(std::nullopt) ? std::nullopt
                                                                                       : std::optional(label));
        }
        return {};
    }

    int lineCount() const
    {
        refreshLines();
        return int(std::min<qsizetype>(qsizetype(m_starts.size()), lineItemLimit));
    }
    QString line(int index) const
    {
        refreshLines();
        if (index < 0 || std::size_t(index) >= m_starts.size())
            return {};
        const qsizetype start = m_starts[std::size_t(index)];
        const qsizetype end =
            std::size_t(index) + 1 < m_starts.size() ? m_starts[std::size_t(index) + 1] - 1 : view()->code().size();
        return view()->code().mid(start, end - start);
    }

    int childCount() const override { return lineCount() + 1; }
    QAccessibleInterface *child(int index) const override
    {
        const int lines = lineCount();
        if (index == lines)
            return interfaceOf(view()->copyButton());
        if (index < 0 || index > lines)
            return nullptr;
        return m_lines.get(index, [&] { return new CodeLinePart(widget(), index); });
    }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        if (!child)
            return -1;
        if (child->object() == view()->copyButton())
            return lineCount();
        const auto *line = dynamic_cast<const CodeLinePart *>(child);
        return line && line->parent() == this ? line->index() : -1;
    }

    void *interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::TextInterface)
            return static_cast<QAccessibleTextInterface *>(this);
        return BlockAccessible::interface_cast(type);
    }
    QString readableText() const override { return bounded(view()->code(), textLimit); }

private:
    void refreshLines() const
    {
        const QString &code = view()->code();
        if (m_linesOf.size() == code.size() && m_linesOf == code && !m_starts.empty())
            return;
        m_linesOf = code;
        m_starts.clear();
        m_starts.push_back(0);
        for (qsizetype i = code.indexOf(u'\n'); i >= 0; i = code.indexOf(u'\n', i + 1))
            m_starts.push_back(i + 1);
    }

    mutable QString m_linesOf;
    mutable std::vector<qsizetype> m_starts;
    PartCache m_lines;
};

// The strip that shows a code block's lines, focused to select and copy: it reads as the code,
// worked out when asked, so code streaming in sends no name-change notices.
class CodeTextAccessible final : public QAccessibleWidget
{
public:
    explicit CodeTextAccessible(CodeTextView *view)
        : QAccessibleWidget(view, QAccessible::StaticText)
    {}

    QString text(QAccessible::Text t) const override
    {
        if (t == QAccessible::Name)
            return bounded(static_cast<const CodeTextView *>(widget())->code(), CodeTextView::maxLineLayout);
        return QAccessibleWidget::text(t);
    }
};

int CodeLinePart::partCount() const
{
    const auto *code = dynamic_cast<const CodeBlockAccessible *>(interfaceOf(m_block));
    return code ? code->lineCount() : 0;
}

QString CodeLinePart::text(QAccessible::Text t) const
{
    const auto *code = dynamic_cast<const CodeBlockAccessible *>(interfaceOf(m_block));
    return t == QAccessible::Name && code ? code->line(m_index) : QString();
}

class TableCellPart final : public BlockPart, public QAccessibleTableCellInterface
{
public:
    // row -1 is the header row.
    TableCellPart(QWidget *table, int row, int column)
        : BlockPart(table, 0)
        , m_row(row)
        , m_column(column)
    {}

    const TableBlockView *view() const { return qobject_cast<const TableBlockView *>(m_block.data()); }
    bool isValid() const override
    {
        const TableBlockView *v = view();
        return v && m_row < v->rowCount() && m_column < v->columnCount();
    }
    int partCount() const override { return 0; }
    QAccessible::Role role() const override { return m_row < 0 ? QAccessible::ColumnHeader : QAccessible::Cell; }
    QString text(QAccessible::Text t) const override
    {
        return t == QAccessible::Name && isValid() ? view()->cellText(m_row + 1, m_column) : QString();
    }
    void *interface_cast(QAccessible::InterfaceType type) override
    {
        return type == QAccessible::TableCellInterface ? static_cast<QAccessibleTableCellInterface *>(this) : nullptr;
    }

    bool isSelected() const override { return false; }
    QList<QAccessibleInterface *> columnHeaderCells() const override;
    QList<QAccessibleInterface *> rowHeaderCells() const override { return {}; }
    int columnIndex() const override { return m_column; }
    int rowIndex() const override { return std::max(0, m_row); }
    int columnExtent() const override { return 1; }
    int rowExtent() const override { return 1; }
    QAccessibleInterface *table() const override { return interfaceOf(m_block); }

    int row() const { return m_row; }

private:
    int m_row;
    int m_column;
};

// A table as the grid it shows: one header cell per column, then exactly as many cells per row
// as there are headers. A screen reader moves through it cell by cell.
class TableAccessible final : public BlockAccessible, public QAccessibleTableInterface
{
public:
    explicit TableAccessible(TableBlockView *view)
        : BlockAccessible(view, QAccessible::Table)
    {}

    const TableBlockView *view() const { return static_cast<const TableBlockView *>(widget()); }

    // The role says "table"; a table has no caption of its own to name it by.
    QString text(QAccessible::Text) const override { return {}; }

    QAccessibleInterface *cell(int row, int column) const
    {
        if (row < -1 || row >= rowCount() || column < 0 || column >= columnCount())
            return nullptr;
        const int key = (row + 1) * 4096 + column;
        return m_cells.get(key, [&] { return new TableCellPart(widget(), row, column); });
    }

    int childCount() const override { return (rowCount() + 1) * columnCount(); }
    QAccessibleInterface *child(int index) const override
    {
        const int columns = columnCount();
        if (columns == 0 || index < 0 || index >= childCount())
            return nullptr;
        return cell(index / columns - 1, index % columns);
    }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        const auto *c = dynamic_cast<const TableCellPart *>(child);
        if (!c || c->table() != this)
            return -1;
        return (c->row() + 1) * columnCount() + c->columnIndex();
    }
    void *interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::TableInterface)
            return static_cast<QAccessibleTableInterface *>(this);
        return BlockAccessible::interface_cast(type);
    }

    QAccessibleInterface *caption() const override { return nullptr; }
    QAccessibleInterface *summary() const override { return nullptr; }
    QAccessibleInterface *cellAt(int row, int column) const override { return row < 0 ? nullptr : cell(row, column); }
    int selectedCellCount() const override { return 0; }
    QList<QAccessibleInterface *> selectedCells() const override { return {}; }
    QString columnDescription(int column) const override
    {
        return column >= 0 && column < columnCount() ? view()->cellText(0, column) : QString();
    }
    QString rowDescription(int) const override { return {}; }
    int selectedColumnCount() const override { return 0; }
    int selectedRowCount() const override { return 0; }
    // Columns are capped so that a cell's key stays unique; no table anyone reads is wider.
    int columnCount() const override { return std::min(view()->columnCount(), 4095); }
    int rowCount() const override { return view()->rowCount(); }
    QList<int> selectedColumns() const override { return {}; }
    QList<int> selectedRows() const override { return {}; }
    bool isColumnSelected(int) const override { return false; }
    bool isRowSelected(int) const override { return false; }
    bool selectRow(int) override { return false; }
    bool selectColumn(int) override { return false; }
    bool unselectRow(int) override { return false; }
    bool unselectColumn(int) override { return false; }
    void modelChange(QAccessibleTableModelChangeEvent *) override {}

private:
    PartCache m_cells;
};

QList<QAccessibleInterface *> TableCellPart::columnHeaderCells() const
{
    if (m_row < 0)
        return {};
    auto *table = dynamic_cast<TableAccessible *>(interfaceOf(m_block));
    QAccessibleInterface *header = table ? table->cell(-1, m_column) : nullptr;
    return header ? QList<QAccessibleInterface *>{header} : QList<QAccessibleInterface *>{};
}

QAccessibleInterface *factory(const QString &className, QObject *object)
{
    if (!object || !object->isWidgetType())
        return nullptr;
    if (className == QLatin1String("TranscriptArea"))
        return new TranscriptAccessible(static_cast<TranscriptArea *>(object));
    if (className == QLatin1String("MessageBubble"))
        return new BubbleAccessible(static_cast<MessageBubble *>(object));
    if (className == QLatin1String("TextBlockView"))
        return new TextBlockAccessible(static_cast<TextBlockView *>(object));
    if (className == QLatin1String("CodeBlockView"))
        return new CodeBlockAccessible(static_cast<CodeBlockView *>(object));
    if (className == QLatin1String("CodeTextView"))
        return new CodeTextAccessible(static_cast<CodeTextView *>(object));
    if (className == QLatin1String("TableBlockView"))
        return new TableAccessible(static_cast<TableBlockView *>(object));
    return nullptr;
}

} // namespace

void installTranscriptAccessibility()
{
    static const bool installed = [] {
        QAccessible::installFactory(factory);
        return true;
    }();
    Q_UNUSED(installed);
}
