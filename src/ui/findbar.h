#pragma once

#include <QWidget>

class QLabel;
class QLineEdit;
class QToolButton;

// The bar above the composer that finds words in the conversation: a field, where the current hit
// is among all ("3 of 12"), previous and next, and a close button. Return and F3 go to the next
// hit, Shift+Return and Shift+F3 to the previous one, Escape closes the bar. The bar only asks;
// the window finds and says what to show.
class FindBar final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(FindBar)

public:
    explicit FindBar(QWidget *parent = nullptr);

    QLineEdit *field() const { return m_field; }
    QString text() const;
    // Shows the words without asking for a search again.
    void setText(const QString &text);
    // Shows the count ("3 of 12", "No results"); announced to screen readers when it changes
    // while the field has the focus. Previous and next are offered only when there is a hit to go to.
    void setStatus(const QString &status, bool canMove);
    QString status() const;

signals:
    // Emitted when the user changes the words.
    void textEdited(const QString &text);
    // Emitted when the user asks for the next hit (Return, the button) or the previous one
    // (Shift+Return, the button).
    void nextRequested();
    void previousRequested();
    // Emitted when the user closes the bar (Escape, the close button).
    void closeRequested();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void applyColours();

    QLineEdit *m_field;
    QLabel *m_status;
    QToolButton *m_previous;
    QToolButton *m_next;
    QToolButton *m_close;
};
