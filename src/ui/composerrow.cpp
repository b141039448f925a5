#include "ui/composerrow.h"

#include "chat/chatviewmodel.h"
#include "ui/composerfield.h"
#include "ui/theme.h"

#include <QHBoxLayout>
#include <QToolButton>

using namespace Qt::StringLiterals;

ComposerRow::ComposerRow(ChatViewModel *chat, QWidget *parent)
    : QWidget(parent)
    , m_chat(chat)
    , m_composer(new ComposerField(this))
{
    setObjectName(u"composerRow"_s);

    const int sendSize = QFontMetrics(Theme::font(Theme::TextStyle::Title2)).height();
    m_sendButton = Theme::symbolButton(QLatin1StringView("arrow.up.circle.fill"), u"Send"_s, u"sendButton"_s, this);
    m_sendButton->setIcon(Theme::symbolIcon(QLatin1StringView("arrow.up.circle.fill"), Theme::Color::Accent));
    m_sendButton->setIconSize(QSize(sendSize, sendSize));
    connect(m_sendButton, &QToolButton::clicked, this, &ComposerRow::sendRequested);

    m_stopButton = Theme::symbolButton(QLatin1StringView("stop.fill"), u"Stop"_s, u"stopButton"_s, this);
    m_stopButton->setIcon(Theme::symbolIcon(QLatin1StringView("stop.fill"), Theme::Color::Primary));
    m_stopButton->setAutoRaise(false);
    connect(m_stopButton, &QToolButton::clicked, m_chat, &ChatViewModel::stop);

    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 8, 12, 12);
    layout->setSpacing(8);
    layout->addWidget(m_composer, 1);
    layout->addWidget(m_sendButton);
    layout->addWidget(m_stopButton);

    connect(m_chat, &ChatViewModel::inputChanged, this, [this] {
        m_composer->setText(m_chat->input());
        syncButtons();
    });
    connect(m_chat, &ChatViewModel::isStreamingChanged, this, &ComposerRow::syncButtons);
    connect(m_composer, &ComposerField::textChanged, this, [this] { m_chat->setInput(m_composer->text()); });
    connect(m_composer, &ComposerField::submitted, this, &ComposerRow::sendRequested);

    m_composer->setText(m_chat->input());
    syncButtons();
}

void ComposerRow::syncButtons()
{
    const bool streaming = m_chat->isStreaming();
    m_sendButton->setVisible(!streaming);
    m_stopButton->setVisible(streaming);
    m_sendButton->setEnabled(!m_chat->input().trimmed().isEmpty());
}
