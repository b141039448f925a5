#include "ui/composereditor.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QKeyEvent>
#include <QMimeData>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextBoundaryFinder>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextLayout>
#include <QVarLengthArray>

#include <algorithm>
#include <tuple>
#include <utility>

namespace {

constexpr int continuesProperty = QTextFormat::UserProperty + 1;

// Where a line of more than longestPiece characters is cut: after the last space in the second half
// of each span, else at a grapheme boundary, so a cut never splits a character.
QList<int> cutPoints(const QString &line)
{
    QList<int> cuts;
    int start = 0;
    while (line.size() - start > ComposerEditor::longestPiece) {
        const int limit = start + ComposerEditor::cutSpacing;
        int at = limit;
        while (at > start + ComposerEditor::cutSpacing / 2 && !line.at(at - 1).isSpace())
            --at;
        if (!line.at(at - 1).isSpace()) {
            constexpr int context = 32;
            QTextBoundaryFinder graphemes(QTextBoundaryFinder::Grapheme,
                                          QStringView(line).sliced(limit - context, 2 * context).toString());
            graphemes.setPosition(context);
            at = limit;
            if (!graphemes.isAtBoundary() && graphemes.toPreviousBoundary() > 0)
                at = limit - context + int(graphemes.position());
        }
        cuts.append(at);
        start = at;
    }
    return cuts;
}

// The next line break at or after from, as a text cursor reads them when text is inserted (CR LF
// counts as one): its position and length, or the text's end and 0.
std::pair<qsizetype, qsizetype> nextBreak(const QString &text, qsizetype from)
{
    for (qsizetype i = from; i < text.size(); ++i) {
        switch (text.at(i).unicode()) {
        case u'\r':
            return {i, i + 1 < text.size() && text.at(i + 1) == u'\n' ? 2 : 1};
        case u'\n':
        case QChar::ParagraphSeparator:
        case 0xfdd0: // a frame's start and end, which insertion also takes for a break
        case 0xfdd1:
            return {i, 1};
        default:
            break;
        }
    }
    return {text.size(), 0};
}

QTextBlockFormat withoutContinuation(QTextBlockFormat format)
{
    format.clearProperty(continuesProperty);
    return format;
}

QTextBlockFormat withContinuation(QTextBlockFormat format)
{
    format.setProperty(continuesProperty, true);
    return format;
}

bool matchesAny(QKeyEvent *event, std::initializer_list<QKeySequence::StandardKey> keys)
{
    return std::any_of(keys.begin(), keys.end(),
                       [event](QKeySequence::StandardKey key) { return event->matches(key); });
}

// Whether blocks continue the one before, by their format's index: a long text has a hundred
// thousand blocks and a handful of formats, and reading a block's format is a lookup and a copy.
class ContinuationCache
{
public:
    bool operator()(const QTextBlock &block)
    {
        const int index = block.blockFormatIndex();
        for (const auto &[known, continues] : m_known) {
            if (known == index)
                return continues;
        }
        const bool continues = ComposerEditor::continuesPrevious(block);
        m_known.append({index, continues});
        return continues;
    }

private:
    QVarLengthArray<std::pair<int, bool>, 4> m_known;
};

// The raw text of a stretch of the document, starting inside first, with each block separator
// made a line break, or dropped where the next block continues a line.
QString joined(QString raw, QTextBlock first)
{
    ContinuationCache continues;
    QChar *out = raw.data();
    const QChar *in = out;
    const QChar *end = in + raw.size();
    QTextBlock block = first;
    while (in != end) {
        const QChar *separator = std::find(in, end, QChar(QChar::ParagraphSeparator));
        if (out != in)
            std::copy(in, separator, out);
        out += separator - in;
        if (separator == end)
            break;
        block = block.next();
        if (!continues(block))
            *out++ = u'\n';
        in = separator + 1;
    }
    raw.truncate(out - raw.constData());
    return raw;
}

// The composer as a screen reader sees it: an editable text whose characters, selection and caret
// are counted in the text as typed. Words and sentences are found within the line around an
// offset, and lines are the lines drawn, so a reader never has the whole text read out for one
// caret move.
class ComposerAccessible final : public QAccessibleWidget,
                                 public QAccessibleTextInterface,
                                 public QAccessibleEditableTextInterface
{
public:
    explicit ComposerAccessible(ComposerEditor *editor)
        : QAccessibleWidget(editor, QAccessible::EditableText)
    {}

    void *interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::TextInterface)
            return static_cast<QAccessibleTextInterface *>(this);
        if (type == QAccessible::EditableTextInterface)
            return static_cast<QAccessibleEditableTextInterface *>(this);
        return QAccessibleWidget::interface_cast(type);
    }

    QAccessible::State state() const override
    {
        QAccessible::State state = QAccessibleWidget::state();
        state.multiLine = true;
        state.editable = !editor()->isReadOnly();
        state.readOnly = editor()->isReadOnly();
        state.selectableText = true;
        return state;
    }

    QString text(QAccessible::Text type) const override
    {
        if (type == QAccessible::Value)
            return editor()->text();
        return QAccessibleWidget::text(type);
    }

    void setText(QAccessible::Text type, const QString &text) override
    {
        if (type == QAccessible::Value && !editor()->isReadOnly())
            editor()->setText(text);
        else
            QAccessibleWidget::setText(type, text);
    }

    void selection(int index, int *start, int *end) const override
    {
        const QTextCursor cursor = editor()->textCursor();
        *start = *end = 0;
        if (index == 0 && cursor.hasSelection()) {
            *start = editor()->textPosition(cursor.selectionStart());
            *end = editor()->textPosition(cursor.selectionEnd());
        }
    }
    int selectionCount() const override { return editor()->textCursor().hasSelection() ? 1 : 0; }
    void addSelection(int start, int end) override { setSelection(0, start, end); }
    void removeSelection(int index) override
    {
        if (index != 0)
            return;
        QTextCursor cursor = editor()->textCursor();
        cursor.clearSelection();
        editor()->setTextCursor(cursor);
    }
    void setSelection(int index, int start, int end) override
    {
        if (index != 0)
            return;
        QTextCursor cursor = editor()->textCursor();
        cursor.setPosition(editor()->documentPosition(start));
        cursor.setPosition(editor()->documentPosition(end), QTextCursor::KeepAnchor);
        editor()->setTextCursor(cursor);
    }
    int cursorPosition() const override { return editor()->textPosition(editor()->textCursor().position()); }
    void setCursorPosition(int position) override
    {
        QTextCursor cursor = editor()->textCursor();
        cursor.setPosition(editor()->documentPosition(position));
        editor()->setTextCursor(cursor);
    }
    QString text(int start, int end) const override
    {
        if (end < 0)
            end = characterCount();
        if (end <= start)
            return {};
        return editor()->textBetween(editor()->documentPosition(start), editor()->documentPosition(end));
    }
    QString textBeforeOffset(int offset, QAccessible::TextBoundaryType type, int *start, int *end) const override
    {
        const int before = segmentAt(offset, type).first;
        if (before <= 0) {
            *start = *end = 0;
            return {};
        }
        std::tie(*start, *end) = segmentAt(before - 1, type);
        return text(*start, *end);
    }
    QString textAfterOffset(int offset, QAccessible::TextBoundaryType type, int *start, int *end) const override
    {
        const int count = characterCount();
        const int after = segmentAt(offset, type).second;
        if (after >= count) {
            *start = *end = count;
            return {};
        }
        std::tie(*start, *end) = segmentAt(after, type);
        return text(*start, *end);
    }
    QString textAtOffset(int offset, QAccessible::TextBoundaryType type, int *start, int *end) const override
    {
        std::tie(*start, *end) = segmentAt(offset, type);
        return text(*start, *end);
    }
    int characterCount() const override { return int(editor()->textLength()); }
    QRect characterRect(int offset) const override
    {
        QTextCursor cursor(editor()->document());
        cursor.setPosition(editor()->documentPosition(offset));
        QRect rect = editor()->cursorRect(cursor);
        rect.setWidth(editor()->fontMetrics().horizontalAdvance(text(offset, offset + 1)));
        return QRect(editor()->viewport()->mapToGlobal(rect.topLeft()), rect.size());
    }
    int offsetAtPoint(const QPoint &point) const override
    {
        const QPoint local = editor()->viewport()->mapFromGlobal(point);
        if (!editor()->viewport()->rect().contains(local))
            return -1;
        return editor()->textPosition(editor()->cursorForPosition(local).position());
    }
    void scrollToSubstring(int start, int) override
    {
        const QTextBlock block = editor()->document()->findBlock(editor()->documentPosition(start));
        editor()->verticalScrollBar()->setValue(block.firstLineNumber());
    }
    QString attributes(int, int *start, int *end) const override
    {
        *start = 0;
        *end = characterCount();
        return {};
    }

    void deleteText(int start, int end) override { replaceText(start, end, QString()); }
    void insertText(int offset, const QString &text) override { replaceText(offset, offset, text); }
    void replaceText(int start, int end, const QString &text) override
    {
        if (editor()->isReadOnly())
            return;
        setSelection(0, start, end);
        editor()->insertText(text);
    }

private:
    ComposerEditor *editor() const { return static_cast<ComposerEditor *>(widget()); }

    // The segment around offset that a boundary type makes, as [start, end) in the text.
    std::pair<int, int> segmentAt(int offset, QAccessible::TextBoundaryType type) const
    {
        const int count = characterCount();
        offset = std::clamp(offset, 0, count);
        if (type == QAccessible::CharBoundary)
            return {offset, std::min(count, offset + 1)};
        if (type == QAccessible::NoBoundary)
            return {0, count};
        const QTextDocument *doc = editor()->document();
        const int position = editor()->documentPosition(offset);
        if (type == QAccessible::LineBoundary) {
            // The line drawn, as Home and End see it.
            const QTextBlock block = doc->findBlock(position);
            const QTextLayout *layout = block.layout();
            const QTextLine line = layout && layout->lineCount() > 0
                                       ? layout->lineForTextPosition(position - block.position())
                                       : QTextLine();
            if (line.isValid()) {
                const int first = block.position() + line.textStart();
                const int last = first + line.textLength();
                const bool lastLine = line.lineNumber() == layout->lineCount() - 1;
                // The line that ends a real line takes its line break with it.
                const bool breaks =
                    lastLine && block.next().isValid() && !ComposerEditor::continuesPrevious(block.next());
                return {editor()->textPosition(first),
                        std::min(count, editor()->textPosition(last) + (breaks ? 1 : 0))};
            }
        }
        // Words, sentences and paragraphs are looked for within the real line around the offset.
        QTextBlock first = doc->findBlock(position);
        while (ComposerEditor::continuesPrevious(first))
            first = first.previous();
        QTextBlock last = doc->findBlock(position);
        while (ComposerEditor::continuesPrevious(last.next()))
            last = last.next();
        const int lineStart = editor()->textPosition(first.position());
        const int lineEnd =
            editor()->textPosition(last.position() + last.length() - 1) + (last.next().isValid() ? 1 : 0);
        if (type == QAccessible::LineBoundary || type == QAccessible::ParagraphBoundary)
            return {lineStart, lineEnd};
        const QString line = editor()->textBetween(first.position(), last.position() + last.length() - 1);
        QTextBoundaryFinder finder(
            type == QAccessible::WordBoundary ? QTextBoundaryFinder::Word : QTextBoundaryFinder::Sentence, line);
        const int inLine = std::min(offset - lineStart, int(line.size()));
        finder.setPosition(inLine);
        const int start = finder.isAtBoundary() ? inLine : int(finder.toPreviousBoundary());
        finder.setPosition(inLine);
        const int end = int(finder.toNextBoundary());
        return {lineStart + std::max(0, start), end < 0 ? lineEnd : lineStart + end};
    }
};

QAccessibleInterface *composerAccessible(const QString &className, QObject *object)
{
    if (className == QLatin1String("ComposerEditor"))
        return new ComposerAccessible(static_cast<ComposerEditor *>(object));
    return nullptr;
}

} // namespace

ComposerEditor::ComposerEditor(QWidget *parent)
    : QPlainTextEdit(parent)
{
    static const bool installed = [] {
        QAccessible::installFactory(composerAccessible);
        return true;
    }();
    Q_UNUSED(installed);
    // The plain-text editor's own interface may already be made, by events sent while this object
    // was still only a QPlainTextEdit; it would count the cuts as line breaks.
    QAccessibleInterface *made = QAccessible::queryAccessibleInterface(this);
    if (made && !dynamic_cast<ComposerAccessible *>(made))
        QAccessible::deleteAccessibleInterface(QAccessible::uniqueId(made));
}

int ComposerEditor::textPosition(int documentPosition) const
{
    ContinuationCache continues;
    int cuts = 0;
    const QTextBlock last = document()->findBlock(documentPosition);
    for (QTextBlock block = document()->begin(); block.isValid() && block != last;) {
        block = block.next();
        cuts += continues(block);
    }
    return documentPosition - cuts;
}

int ComposerEditor::documentPosition(int textPosition) const
{
    ContinuationCache continues;
    int cuts = 0;
    for (QTextBlock block = document()->begin(); block.isValid(); block = block.next()) {
        const QTextBlock next = block.next();
        const int end = block.position() + block.length() - 1 - cuts;
        // At a cut the text position is the start of the later piece.
        if (textPosition < end || !next.isValid() || (textPosition == end && !continues(next)))
            return std::clamp(textPosition + cuts, block.position(), block.position() + block.length() - 1);
        cuts += continues(next);
    }
    return 0;
}

bool ComposerEditor::continuesPrevious(const QTextBlock &block)
{
    return block.isValid() && block.blockFormat().boolProperty(continuesProperty);
}

QString ComposerEditor::text() const
{
    return joined(document()->toRawText(), document()->begin());
}

qsizetype ComposerEditor::textLength() const
{
    ContinuationCache continues;
    qsizetype cuts = 0;
    for (QTextBlock block = document()->begin().next(); block.isValid(); block = block.next())
        cuts += continues(block);
    return document()->characterCount() - 1 - cuts;
}

QString ComposerEditor::textBetween(int from, int to) const
{
    QTextCursor range(document());
    range.setPosition(from);
    range.setPosition(to, QTextCursor::KeepAnchor);
    return joined(range.selectedText(), document()->findBlock(from));
}

void ComposerEditor::setText(const QString &text)
{
    // The cuts go in as line breaks, and the blocks after them are marked once the document is
    // built: one pass over the text, and no undo step for any of it.
    QString pieces;
    QList<int> continuing;
    int block = 0;
    qsizetype lineStart = 0;
    pieces.reserve(text.size() + text.size() / cutSpacing + 1);
    for (;;) {
        const auto [lineEnd, breakLength] = nextBreak(text, lineStart);
        const QStringView line = QStringView(text).sliced(lineStart, lineEnd - lineStart);
        if (line.size() > longestPiece) {
            const QString owned = line.toString();
            qsizetype copied = 0;
            for (int at : cutPoints(owned)) {
                pieces.append(line.sliced(copied, at - copied));
                pieces.append(u'\n');
                continuing.append(++block);
                copied = at;
            }
            pieces.append(line.sliced(copied));
        } else {
            pieces.append(line);
        }
        if (breakLength == 0)
            break;
        pieces.append(QStringView(text).sliced(lineEnd, breakLength));
        ++block;
        lineStart = lineEnd + breakLength;
    }
    setPlainText(pieces);
    if (continuing.isEmpty())
        return;
    QTextDocument *doc = document();
    doc->setUndoRedoEnabled(false);
    QTextCursor marker(doc);
    marker.beginEditBlock();
    for (int number : continuing) {
        marker.setPosition(doc->findBlockByNumber(number).position());
        marker.setBlockFormat(withContinuation(marker.blockFormat()));
    }
    marker.endEditBlock();
    doc->setUndoRedoEnabled(true);
}

void ComposerEditor::insertText(const QString &text)
{
    QTextCursor cursor = textCursor();
    cursor.beginEditBlock();
    cursor.removeSelectedText();
    const int start = cursor.position();
    cursor.insertText(text);
    const int end = cursor.position();
    // A line break typed or pasted into a continuing piece starts a line of its own, yet the new
    // block takes the piece's format.
    for (QTextBlock block = document()->findBlock(start).next(); block.isValid() && block.position() <= end;
         block = block.next()) {
        if (continuesPrevious(block)) {
            QTextCursor(block).setBlockFormat(withoutContinuation(block.blockFormat()));
        }
    }
    balance(start, end);
    cursor.endEditBlock();
    setTextCursor(cursor);
}

void ComposerEditor::keyPressEvent(QKeyEvent *event)
{
    stepOverCut(event);
    if (isReadOnly() || event->matches(QKeySequence::Undo) || event->matches(QKeySequence::Redo) ||
        !editNeedsBalance(int(event->text().size()))) {
        QPlainTextEdit::keyPressEvent(event);
        return;
    }
    editAndBalance([this, event] { QPlainTextEdit::keyPressEvent(event); });
}

void ComposerEditor::inputMethodEvent(QInputMethodEvent *event)
{
    if (isReadOnly() || !editNeedsBalance(int(event->commitString().size()))) {
        QPlainTextEdit::inputMethodEvent(event);
        return;
    }
    editAndBalance([this, event] { QPlainTextEdit::inputMethodEvent(event); });
}

QMimeData *ComposerEditor::createMimeDataFromSelection() const
{
    const QTextCursor cursor = textCursor();
    auto *data = new QMimeData;
    data->setText(textBetween(cursor.selectionStart(), cursor.selectionEnd()));
    return data;
}

void ComposerEditor::insertFromMimeData(const QMimeData *source)
{
    if (!isReadOnly() && source && source->hasText())
        insertText(source->text());
}

void ComposerEditor::stepOverCut(QKeyEvent *event)
{
    // A cut is one position of the text but two of the document (the end of one piece and the start
    // of the next): a key that moves or deletes across it first steps over, so that it acts on the
    // character beyond, as it would in an uncut line.
    QTextCursor cursor = textCursor();
    const bool select = matchesAny(event, {QKeySequence::SelectPreviousChar, QKeySequence::SelectPreviousWord,
                                           QKeySequence::SelectNextChar, QKeySequence::SelectNextWord});
    const bool backward = matchesAny(event, {QKeySequence::SelectPreviousChar, QKeySequence::SelectPreviousWord}) ||
                          (!cursor.hasSelection() &&
                           (matchesAny(event, {QKeySequence::MoveToPreviousChar, QKeySequence::MoveToPreviousWord,
                                               QKeySequence::DeleteStartOfWord}) ||
                            (event->key() == Qt::Key_Backspace && !(event->modifiers() & ~Qt::ShiftModifier))));
    const bool forward =
        matchesAny(event, {QKeySequence::SelectNextChar, QKeySequence::SelectNextWord}) ||
        (!cursor.hasSelection() && matchesAny(event, {QKeySequence::MoveToNextChar, QKeySequence::MoveToNextWord,
                                                      QKeySequence::Delete, QKeySequence::DeleteEndOfWord}));
    const QTextBlock block = cursor.block();
    const int position = cursor.position();
    const auto mode = select ? QTextCursor::KeepAnchor : QTextCursor::MoveAnchor;
    if (backward && position == block.position() && continuesPrevious(block)) {
        cursor.setPosition(position - 1, mode);
        setTextCursor(cursor);
    } else if (forward && position == block.position() + block.length() - 1 && continuesPrevious(block.next())) {
        cursor.setPosition(position + 1, mode);
        setTextCursor(cursor);
    }
}

bool ComposerEditor::editNeedsBalance(int incoming) const
{
    // Most keys change one piece well inside its limits and leave the undo history as Qt keeps it
    // (typing merged into one step); only an edit that may cut or join pieces is wrapped.
    const QTextCursor cursor = textCursor();
    const QTextBlock block = cursor.block();
    if (cursor.hasSelection() &&
        document()->findBlock(cursor.selectionStart()) != document()->findBlock(cursor.selectionEnd()))
        return true;
    if (block.length() - 1 + incoming > longestPiece)
        return true;
    return block.length() - 1 <= shortPiece && (continuesPrevious(block) || continuesPrevious(block.next()));
}

template<typename Edit>
void ComposerEditor::editAndBalance(Edit edit)
{
    const QTextCursor cursor = textCursor();
    QTextDocument *doc = document();
    QTextCursor from(doc);
    from.setPosition(doc->findBlock(cursor.selectionStart()).position());
    from.setKeepPositionOnInsert(true);
    const QTextBlock last = doc->findBlock(cursor.selectionEnd());
    QTextCursor to(doc);
    to.setPosition(last.position() + last.length() - 1);
    QTextCursor step(doc);
    step.beginEditBlock();
    edit();
    balance(from.position(), to.position());
    step.endEditBlock();
}

void ComposerEditor::balance(int from, int to)
{
    QTextDocument *doc = document();
    QTextCursor end(doc);
    end.setPosition(std::min(to, doc->characterCount() - 1));
    QTextBlock block = doc->findBlock(from);
    if (block.previous().isValid())
        block = block.previous();
    int position = block.position();
    for (;;) {
        block = doc->findBlock(position);
        if (!block.isValid())
            break;
        if (block.length() - 1 > longestPiece) {
            cut(block);
            block = doc->findBlock(position);
        }
        const QTextBlock next = block.next();
        if (continuesPrevious(next)) {
            const int length = block.length() - 1;
            const int nextLength = next.length() - 1;
            if (length == 0 || nextLength == 0 ||
                (std::min(length, nextLength) < shortPiece && length + nextLength <= cutSpacing)) {
                // The joined block keeps the first one's format, which says how it follows its own
                // predecessor.
                QTextCursor join(doc);
                join.setPosition(next.position() - 1);
                join.deleteChar();
                continue;
            }
        }
        if (!next.isValid() || block.position() > end.position())
            break;
        position = next.position();
    }
}

void ComposerEditor::cut(const QTextBlock &block)
{
    const QList<int> cuts = cutPoints(block.text());
    const QTextBlockFormat continuing = withContinuation(block.blockFormat());
    const int start = block.position();
    QTextCursor cursor(document());
    // From the last cut back, so that the earlier positions still hold.
    for (auto at = cuts.crbegin(); at != cuts.crend(); ++at) {
        cursor.setPosition(start + *at);
        cursor.insertBlock(continuing);
    }
}
