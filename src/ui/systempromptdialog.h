#pragma once

#include <QDialog>

class QPlainTextEdit;

// The small editor of a conversation's standing instructions: a multi-line field with Cancel and
// Save. Return breaks the line (instructions are often several); Ctrl+Return saves, Escape cancels.
// Saving a blank text removes the instructions. The dialog only edits text: its owner stores it.
class SystemPromptDialog final : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SystemPromptDialog)

public:
    // title names the conversation in the dialog's heading.
    SystemPromptDialog(const QString &title, const QString &prompt, QWidget *parent = nullptr);

    QString prompt() const;
    QPlainTextEdit *field() const { return m_field; }

private:
    QPlainTextEdit *m_field;
};
