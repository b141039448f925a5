#pragma once

#include <QWidget>

class ChatViewModel;
class ComposerField;
class QToolButton;

// The row under the transcript: the composer field and, beside it, Send (while idle) or Stop
// (while a reply streams). The field's text is the view model's input, both ways.
//
// Shows the window's view model, which must outlive it. Stop stops the view model's reply
// directly; sending is the owner's business (sendRequested), since it may first make a
// conversation.
class ComposerRow final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ComposerRow)

public:
    explicit ComposerRow(ChatViewModel *chat, QWidget *parent = nullptr);

    ComposerField *composer() const { return m_composer; }

signals:
    // Emitted when the user presses Return in the field (whatever the text) or clicks Send.
    void sendRequested();

private:
    void syncButtons();

    ChatViewModel *m_chat;
    ComposerField *m_composer;
    QToolButton *m_sendButton;
    QToolButton *m_stopButton;
};
