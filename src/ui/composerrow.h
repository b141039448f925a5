#pragma once

#include <QWidget>

class ChatViewModel;
class ComposerField;
class QTimer;
class QToolButton;

// The row under the transcript: the composer field and, beside it, Send (while idle) or Stop
// (while a reply streams). The field's text is the view model's input, both ways.
//
// A long text (over a million characters) reaches the view model a moment after the typing
// pauses rather than at every key: reading it out of the field costs more than a key may take.
// Anything that sends flushes it first.
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
    // Hands the field's text to the view model now if it waits (see below).
    void flushInput();

signals:
    // Emitted when the user presses Return in the field (whatever the text) or clicks Send.
    void sendRequested();

private:
    void syncButtons();
    void pushInput();

    ChatViewModel *m_chat;
    ComposerField *m_composer;
    QToolButton *m_sendButton;
    QToolButton *m_stopButton;
    QTimer *m_pushLater;
    bool m_pushing = false;
};
