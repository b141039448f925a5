#pragma once

#include "model/conversation.h"

#include <QFrame>
#include <QTimer>

#include <optional>

class ConversationStore;
class QLabel;
class QPushButton;

// The bar a main window shows for a while after a conversation was deleted: "Chat deleted." and
// an "Undo" button that puts the conversation back as it was (and selects it again if it was the
// one shown). It hides by itself once the time is up; a second delete replaces the first offer.
class DeletedChatBar final : public QFrame
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DeletedChatBar)

public:
    static constexpr int shownMs = 10000;

    // chats must outlive the bar.
    explicit DeletedChatBar(ConversationStore *chats, QWidget *parent = nullptr);

    // Shows the bar for conversation, which has just been deleted.
    void offer(const Conversation &conversation, bool wasSelected);
    // Puts the offered conversation back and hides the bar; nothing when there is no offer.
    void undo();
    // How long the bar stays; tests shorten it.
    void setInterval(int ms) { m_timer.setInterval(ms); }

private:
    ConversationStore *m_chats;
    std::optional<Conversation> m_deleted;
    bool m_wasSelected = false;
    QTimer m_timer;
    QLabel *m_text;
    QPushButton *m_undo;
};
