#include "ui/systempromptdialog.h"

#include "ui/theme.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QShortcut>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

SystemPromptDialog::SystemPromptDialog(const QString &title, const QString &prompt, QWidget *parent)
    : QDialog(parent)
    , m_field(new QPlainTextEdit(this))
{
    setObjectName(u"systemPromptDialog"_s);
    setWindowTitle(u"System Prompt"_s);
    setMinimumSize(420, 300);

    auto *heading = new QLabel(u"System Prompt"_s, this);
    heading->setFont(Theme::font(Theme::TextStyle::Headline));
    auto *note = new QLabel(this);
    note->setTextFormat(Qt::PlainText);
    note->setWordWrap(true);
    note->setText(u"Standing instructions for “%1”, sent before every message. Leave it empty for none."_s.arg(title));
    m_field->setObjectName(u"systemPromptField"_s);
    m_field->setAccessibleName(u"System prompt"_s);
    m_field->setPlaceholderText(u"For example: Answer briefly, in British English."_s);
    m_field->setTabChangesFocus(true);
    m_field->setPlainText(prompt);
    m_field->moveCursor(QTextCursor::End);
    note->setBuddy(m_field);

    auto *buttons = new QDialogButtonBox(this);
    buttons->addButton(u"Cancel"_s, QDialogButtonBox::RejectRole);
    QPushButton *save = buttons->addButton(u"Save"_s, QDialogButtonBox::AcceptRole);
    save->setObjectName(u"saveSystemPrompt"_s);
    save->setToolTip(u"Save (Ctrl+Return)"_s);
    // Return belongs to the field, for instructions of several lines.
    save->setAutoDefault(false);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto *saveShortcut = new QShortcut(QKeySequence(u"Ctrl+Return"_s), this);
    connect(saveShortcut, &QShortcut::activated, this, &QDialog::accept);

    auto *layout = new QVBoxLayout(this);
    layout->setSpacing(8);
    layout->addWidget(heading);
    layout->addWidget(note);
    layout->addWidget(m_field, 1);
    layout->addWidget(buttons);
    m_field->setFocus();
}

QString SystemPromptDialog::prompt() const
{
    return m_field->toPlainText();
}
