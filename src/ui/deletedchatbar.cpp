#include "ui/deletedchatbar.h"

#include "storage/conversationstore.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

using namespace Qt::StringLiterals;

DeletedChatBar::DeletedChatBar(ConversationStore *chats, QWidget *parent)
    : QFrame(parent)
    , m_chats(chats)
{
    setObjectName(u"deletedChatBar"_s);
    setAccessibleName(u"Chat deleted"_s);
    setFrameShape(QFrame::StyledPanel);
    // A notice, not an alarm: the window's own colours, raised a little.
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::AlternateBase);
    m_text = new QLabel(u"Chat deleted."_s, this);
    m_undo = new QPushButton(u"Undo"_s, this);
    m_undo->setObjectName(u"undoDelete"_s);
    m_undo->setAccessibleName(u"Undo delete"_s);
    m_undo->setAutoDefault(false);
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(10, 4, 6, 4);
    layout->addWidget(m_text, 1);
    layout->addWidget(m_undo);

    m_timer.setSingleShot(true);
    m_timer.setInterval(shownMs);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        m_deleted.reset();
        hide();
    });
    connect(m_undo, &QPushButton::clicked, this, &DeletedChatBar::undo);
    hide();
}

void DeletedChatBar::offer(const Conversation &conversation, bool wasSelected)
{
    m_deleted = conversation;
    m_wasSelected = wasSelected;
    m_timer.start();
    show();
}

void DeletedChatBar::undo()
{
    m_timer.stop();
    hide();
    const std::optional<Conversation> deleted = std::exchange(m_deleted, std::nullopt);
    if (!deleted)
        return;
    // Back as it was, dates and all, so it returns to its place in the list.
    m_chats->merge({*deleted});
    if (m_wasSelected)
        m_chats->setSelectedID(deleted->id);
}
