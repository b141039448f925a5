#include "ui/composerrow.h"

#include "chat/chatviewmodel.h"
#include "ui/composereditor.h"
#include "ui/composerfield.h"
#include "ui/theme.h"

#include <QHBoxLayout>
#include <QPlainTextEdit>
#include <QTextDocument>
#include <QTimer>
#include <QToolButton>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

// Above this many characters the field's text is handed over when the typing pauses.
constexpr int longText = 1'000'000;

} // namespace

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
    connect(m_sendButton, &QToolButton::clicked, this, [this] {
        flushInput();
        emit sendRequested();
    });

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

    m_pushLater = new QTimer(this);
    m_pushLater->setSingleShot(true);
    m_pushLater->setInterval(250);
    connect(m_pushLater, &QTimer::timeout, this, &ComposerRow::pushInput);

    connect(m_chat, &ChatViewModel::inputChanged, this, [this] {
        // The field already holds what it just handed over; comparing would read it all again.
        if (!m_pushing) {
            m_pushLater->stop();
            m_composer->setText(m_chat->input());
        }
        syncButtons();
    });
    connect(m_chat, &ChatViewModel::isStreamingChanged, this, &ComposerRow::syncButtons);
    connect(m_composer, &ComposerField::textChanged, this, [this] {
        if (m_composer->editor()->document()->characterCount() > longText)
            m_pushLater->start();
        else
            pushInput();
    });
    connect(m_composer, &ComposerField::submitted, this, [this] {
        flushInput();
        emit sendRequested();
    });

    m_composer->setText(m_chat->input());
    syncButtons();
}

void ComposerRow::flushInput()
{
    if (m_pushLater->isActive()) {
        m_pushLater->stop();
        pushInput();
    }
}

void ComposerRow::pushInput()
{
    m_pushing = true;
    m_chat->setInput(m_composer->text());
    m_pushing = false;
}

void ComposerRow::syncButtons()
{
    const bool streaming = m_chat->isStreaming();
    m_sendButton->setVisible(!streaming);
    m_stopButton->setVisible(streaming);
    // Blank is "only white space": the first other character settles it, without a trimmed copy.
    const QString &input = m_chat->input();
    m_sendButton->setEnabled(std::any_of(input.cbegin(), input.cend(), [](QChar c) { return !c.isSpace(); }));
}
