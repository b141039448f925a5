#pragma once

#include <QPlainTextEdit>

class QTextBlock;

// The composer's editor: a plain-text editor that stays quick however long a line the user types or
// pastes.
//
// A text block is laid out whole on every change to it, so a line of a megabyte would cost a second
// a key. The editor therefore holds a long line as several blocks ("pieces") of a few thousand
// characters, cut after a space where there is one; every piece after the first is marked as
// continuing the one before, and the text is those pieces joined. Pieces are cut and joined again as
// the user types, pastes and deletes, inside the same undo step as the edit, so undo and redo give
// back the text and its pieces together. Cursor keys, Backspace and Delete step over a cut as over
// any other position in the text; the clipboard, a drag and text() get the line whole. A cut shows as
// an early wrap of the line, nothing more.
//
// Screen readers get the same text as one: its offsets are the text's, not the document's.
//
// Text must go in through setText() or insertText() (or the user's own keys and pastes):
// QPlainTextEdit's setPlainText() and a QTextCursor's insertText() know nothing of pieces.
class ComposerEditor final : public QPlainTextEdit
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ComposerEditor)

public:
    // A piece longer than this is cut, into pieces of at most cutSpacing characters.
    static constexpr int longestPiece = 2048;
    static constexpr int cutSpacing = 1536;
    // A piece shorter than this joins its neighbour when both fit in cutSpacing.
    static constexpr int shortPiece = 256;

    explicit ComposerEditor(QWidget *parent = nullptr);

    // The text as the user typed it: pieces joined, line breaks as '\n'.
    QString text() const;
    qsizetype textLength() const;
    // The text between two positions of the document, joined the same way.
    QString textBetween(int from, int to) const;
    // Replaces the whole text, with nothing to undo.
    void setText(const QString &text);
    // Inserts at the cursor, over the selection, as one undo step, as a paste does.
    void insertText(const QString &text);

    // Whether the block is a piece continuing the one before it rather than a line of its own.
    static bool continuesPrevious(const QTextBlock &block);
    // Positions in the text as typed and in the document, which counts a separator at every cut.
    // A text position at a cut maps to the start of the later piece.
    int textPosition(int documentPosition) const;
    int documentPosition(int textPosition) const;

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void inputMethodEvent(QInputMethodEvent *event) override;
    QMimeData *createMimeDataFromSelection() const override;
    void insertFromMimeData(const QMimeData *source) override;

private:
    void stepOverCut(QKeyEvent *event);
    bool editNeedsBalance(int incoming) const;
    template<typename Edit>
    void editAndBalance(Edit edit);
    void balance(int from, int to);
    void cut(const QTextBlock &block);
};
