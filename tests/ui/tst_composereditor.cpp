#include "ui/composereditor.h"
#include "ui/composerfield.h"

#include <QAccessible>
#include <QApplication>
#include <QClipboard>
#include <QTest>
#include <QTextBlock>

#include <algorithm>
#include <functional>

using namespace Qt::StringLiterals;

namespace {

// The text positions where the text is cut into pieces.
QList<int> cutPositions(const ComposerEditor &editor)
{
    QList<int> cuts;
    for (QTextBlock block = editor.document()->begin(); block.isValid(); block = block.next()) {
        if (ComposerEditor::continuesPrevious(block))
            cuts.append(editor.textPosition(block.position()));
    }
    return cuts;
}

// Places the cursor, or selects, by text positions; at a cut, at the start of the later piece
// unless asked for the end of the earlier one.
void place(ComposerEditor &editor, int from, int to = -1, bool earlier = false)
{
    QTextCursor cursor = editor.textCursor();
    cursor.setPosition(editor.documentPosition(from) - (earlier ? 1 : 0));
    if (to >= 0)
        cursor.setPosition(editor.documentPosition(to), QTextCursor::KeepAnchor);
    editor.setTextCursor(cursor);
}

// What a piece may be: not past the limit, not empty, and not starting inside a character.
void checkPieces(const ComposerEditor &editor)
{
    for (QTextBlock block = editor.document()->begin(); block.isValid(); block = block.next()) {
        QVERIFY2(block.length() - 1 <= ComposerEditor::longestPiece, qPrintable(QString::number(block.length())));
        if (ComposerEditor::continuesPrevious(block)) {
            const QString text = block.text();
            QVERIFY(!text.isEmpty());
            QVERIFY(!text.front().isLowSurrogate() && !text.front().isMark());
        }
    }
}

using Edit = std::function<void(ComposerField &field, QString &expected, const QList<int> &cuts)>;

const QString words = u"lorem ipsum dolor sit amet "_s.repeated(520);
const QString solid = u"x"_s.repeated(5000) + u"😀"_s.repeated(3000) + u"e\u0301"_s.repeated(3000);

} // namespace

Q_DECLARE_METATYPE(Edit)

class tst_ComposerEditor : public QObject
{
    Q_OBJECT

private slots:
    // Whatever the user does around the cuts, the text is what a single line would hold, and undo
    // and redo walk it back and forth whole.
    void editsAcrossCuts_keepTheTextExact_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<Edit>("edit");
        const auto key = [](ComposerField &field, Qt::Key key, Qt::KeyboardModifiers modifiers = {}, int times = 1) {
            for (int i = 0; i < times; ++i)
                QTest::keyClick(field.editor(), key, modifiers);
        };
        QTest::newRow("set and read back")
            << words + u"\n\nsecond line\n"_s + solid << Edit([](auto &, auto &, auto &) {});
        QTest::newRow("empty") << QString() << Edit([](auto &, auto &, auto &) {});
        QTest::newRow("type at a cut") << words << Edit([](ComposerField &field, QString &expected, auto &cuts) {
            place(*field.editor(), cuts[0]);
            QTest::keyClicks(field.editor(), u"XYZ"_s);
            expected.insert(cuts[0], u"XYZ"_s);
        });
        QTest::newRow("backspace at a cut")
            << solid << Edit([key](ComposerField &field, QString &expected, auto &cuts) {
                   // A cut among the emoji: three before it, each two units.
                   const int cut = *std::find_if(cuts.begin(), cuts.end(),
                                                 [&](int at) { return expected.at(at - 1).isLowSurrogate(); });
                   place(*field.editor(), cut);
                   key(field, Qt::Key_Backspace, {}, 3);
                   expected.remove(cut - 6, 6);
               });
        QTest::newRow("delete at a cut") << words << Edit([key](ComposerField &field, QString &expected, auto &cuts) {
            place(*field.editor(), cuts[0], -1, true);
            key(field, Qt::Key_Delete, {}, 2);
            expected.remove(cuts[0], 2);
        });
        QTest::newRow("cursor keys over cuts")
            << words << Edit([key](ComposerField &field, QString &expected, auto &cuts) {
                   place(*field.editor(), cuts[1] + 2);
                   key(field, Qt::Key_Left, {}, 4);
                   QTest::keyClicks(field.editor(), u"<"_s);
                   expected.insert(cuts[1] - 2, u"<"_s);
                   place(*field.editor(), cuts[0] - 2);
                   key(field, Qt::Key_Right, {}, 4);
                   QTest::keyClicks(field.editor(), u"|"_s);
                   expected.insert(cuts[0] + 2, u"|"_s);
               });
        QTest::newRow("line break in a continuing piece")
            << words << Edit([key](ComposerField &field, QString &expected, auto &cuts) {
                   place(*field.editor(), cuts[1] + 6);
                   key(field, Qt::Key_Return, Qt::ShiftModifier);
                   place(*field.editor(), cuts[0]);
                   key(field, Qt::Key_Return, Qt::ShiftModifier);
                   expected.insert(cuts[1] + 6, u'\n');
                   expected.insert(cuts[0], u'\n');
               });
        QTest::newRow("typing past a piece's limit")
            << words << Edit([](ComposerField &field, QString &expected, auto &cuts) {
                   const QString typed = u"typed "_s.repeated(220);
                   place(*field.editor(), cuts[0] + 10);
                   QTest::keyClicks(field.editor(), typed);
                   expected.insert(cuts[0] + 10, typed);
               });
        QTest::newRow("selection over cuts replaced")
            << words << Edit([](ComposerField &field, QString &expected, auto &cuts) {
                   place(*field.editor(), cuts[0] - 10, cuts[2] + 10);
                   QTest::keyClicks(field.editor(), u"Q"_s);
                   expected.replace(cuts[0] - 10, cuts[2] - cuts[0] + 20, u"Q"_s);
               });
        QTest::newRow("cut and paste back over cuts")
            << solid << Edit([key](ComposerField &field, QString &expected, auto &cuts) {
                   place(*field.editor(), cuts[0] - 3, cuts[1] + 3);
                   key(field, Qt::Key_X, Qt::ControlModifier);
                   const QString moved = expected.mid(cuts[0] - 3, cuts[1] - cuts[0] + 6);
                   QCOMPARE(QApplication::clipboard()->text(), moved);
                   expected.remove(cuts[0] - 3, moved.size());
                   place(*field.editor(), 5);
                   key(field, Qt::Key_V, Qt::ControlModifier);
                   expected.insert(5, moved);
               });
        QTest::newRow("selection grown over a cut, copied")
            << words << Edit([key](ComposerField &field, QString &expected, auto &cuts) {
                   place(*field.editor(), cuts[0] - 2);
                   key(field, Qt::Key_Right, Qt::ShiftModifier, 4);
                   key(field, Qt::Key_C, Qt::ControlModifier);
                   QCOMPARE(QApplication::clipboard()->text(), expected.mid(cuts[0] - 2, 4));
               });
        QTest::newRow("lines pasted into a continuing piece")
            << words << Edit([key](ComposerField &field, QString &expected, auto &cuts) {
                   const QString pasted = u"one\r\ntwo\n"_s + u"y"_s.repeated(9000) + u"\nthree"_s;
                   QApplication::clipboard()->setText(pasted);
                   place(*field.editor(), cuts[1] + 5);
                   key(field, Qt::Key_V, Qt::ControlModifier);
                   expected.insert(cuts[1] + 5, QString(pasted).replace(u"\r\n"_s, u"\n"_s));
               });
    }
    void editsAcrossCuts_keepTheTextExact()
    {
        QFETCH(QString, text);
        QFETCH(Edit, edit);
        ComposerField field;
        field.resize(600, 200);
        field.show();
        ComposerEditor &editor = *field.editor();
        field.setText(text);
        QCOMPARE(editor.text(), text);
        QCOMPARE(editor.textLength(), text.size());
        checkPieces(editor);

        QString expected = text;
        edit(field, expected, cutPositions(editor));
        QCOMPARE(field.text(), expected);
        QCOMPARE(editor.textLength(), expected.size());
        checkPieces(editor);

        while (editor.document()->isUndoAvailable())
            editor.undo();
        QCOMPARE(editor.text(), text);
        while (editor.document()->isRedoAvailable())
            editor.redo();
        QCOMPARE(editor.text(), expected);
        checkPieces(editor);
    }

    // A screen reader reads, moves through and edits the text as one, whatever the cuts.
    void screenReader_readsTheTextAsOne()
    {
        ComposerField field;
        field.resize(600, 200);
        field.show();
        const QString text = words + u"\nlast line"_s;
        field.setText(text);
        ComposerEditor &editor = *field.editor();
        const int cut = cutPositions(editor).at(1);
        QAccessibleInterface *reader = QAccessible::queryAccessibleInterface(&editor);
        QVERIFY(reader && reader->textInterface() && reader->editableTextInterface());
        QAccessibleTextInterface *readable = reader->textInterface();
        QCOMPARE(reader->text(QAccessible::Value), text);
        QCOMPARE(readable->characterCount(), text.size());
        QCOMPARE(readable->text(cut - 3, cut + 3), text.mid(cut - 3, 6));

        readable->setCursorPosition(cut + 1);
        QCOMPARE(readable->cursorPosition(), cut + 1);
        QTest::keyClick(&editor, Qt::Key_Left);
        QTest::keyClick(&editor, Qt::Key_Left);
        QCOMPARE(readable->cursorPosition(), cut - 1);

        int start = 0;
        int end = 0;
        // Cuts fall after a space, so a word starts at this one.
        QCOMPARE(readable->textAtOffset(cut + 1, QAccessible::WordBoundary, &start, &end),
                 text.mid(cut, text.indexOf(u' ', cut) - cut));
        QCOMPARE(start, cut);
        QCOMPARE(readable->textAtOffset(cut, QAccessible::ParagraphBoundary, &start, &end), words + u'\n');
        QCOMPARE(readable->textAfterOffset(cut, QAccessible::ParagraphBoundary, &start, &end), u"last line"_s);

        readable->setSelection(0, cut - 2, cut + 2);
        readable->selection(0, &start, &end);
        QCOMPARE(std::pair(start, end), std::pair(cut - 2, cut + 2));
        reader->editableTextInterface()->replaceText(cut - 2, cut + 2, u"<>"_s);
        QCOMPARE(editor.text(), QString(text).replace(cut - 2, 4, u"<>"_s));

        // Typing inside a piece is that piece's change alone, and what was typed undoes together.
        const QString before = editor.text();
        const int blocks = editor.blockCount();
        place(editor, cut + 5);
        QTest::keyClicks(&editor, u"abc"_s);
        QCOMPARE(editor.blockCount(), blocks);
        editor.undo();
        QCOMPARE(editor.text(), before);
    }
};

QTEST_MAIN(tst_ComposerEditor)
#include "tst_composereditor.moc"
