#include "ui/replyannouncer.h"

#include "chat/chatviewmodel.h"
#include "render/readingtext.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QSettings>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

const QString settingKey = u"announceReplies.v1"_s;
// A stopped reply's last text arrives once its transfer has wound down.
constexpr int endSettleMs = 150;

class NotificationAccessible final : public QAccessibleWidget
{
public:
    explicit NotificationAccessible(ReplyAnnouncer *announcer)
        : QAccessibleWidget(announcer, QAccessible::Notification)
    {}

    QString text(QAccessible::Text t) const override
    {
        return t == QAccessible::Name ? static_cast<const ReplyAnnouncer *>(object())->text() : QString();
    }
};

QAccessibleInterface *factory(const QString &className, QObject *object)
{
    if (className == QLatin1String("ReplyAnnouncer") && object && object->isWidgetType())
        return new NotificationAccessible(static_cast<ReplyAnnouncer *>(object));
    return nullptr;
}

QString joined(const QList<MarkdownText::Block> &blocks, qsizetype from, qsizetype to)
{
    QStringList parts;
    for (qsizetype i = from; i < to; ++i) {
        const QString part = ReadingText::spokenBlock(blocks.at(i));
        if (!part.trimmed().isEmpty())
            parts.append(part);
    }
    return parts.join(u'\n');
}

} // namespace

ReplyAnnouncer::ReplyAnnouncer(ChatViewModel *chat, QWidget *parent)
    : QWidget(parent)
    , m_chat(chat)
{
    static const bool installed = [] {
        QAccessible::installFactory(factory);
        return true;
    }();
    Q_UNUSED(installed);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    // Never shown for real: showing with its window would announce an empty notification.
    hide();
    m_clock.start();
    m_timer.setSingleShot(true);
    // A coarse timer may fire early, closer to the last announcement than the interval allows.
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &ReplyAnnouncer::announceDue);
    connect(m_chat, &ChatViewModel::isStreamingChanged, this, &ReplyAnnouncer::handleStreaming);
    connect(m_chat, &ChatViewModel::messageChanged, this, &ReplyAnnouncer::handleChanged);
    connect(m_chat, &ChatViewModel::errorTextChanged, this, &ReplyAnnouncer::handleError);
    connect(m_chat, &ChatViewModel::messagesReset, this, [this] {
        // Another conversation is shown: what was being followed is no longer on screen.
        m_reply = QUuid();
        m_endDue = false;
        m_timer.stop();
        forgetParse();
    });
}

void ReplyAnnouncer::setIntervalMs(int ms)
{
    m_intervalMs = ms < 0 ? shippedIntervalMs : ms;
}

bool ReplyAnnouncer::isEnabled()
{
    return QSettings(u"Verbolt"_s, u"Verbolt"_s).value(settingKey, true).toBool();
}

void ReplyAnnouncer::setEnabled(bool enabled)
{
    QSettings settings(u"Verbolt"_s, u"Verbolt"_s);
    settings.setValue(settingKey, enabled);
    settings.sync();
}

QString ReplyAnnouncer::endText(const QString &markdown, qsizetype toldBlocks)
{
    const QList<MarkdownText::Block> blocks = MarkdownText::parse(markdown);
    const QString all = joined(blocks, 0, blocks.size());
    if (all.size() <= longReply && toldBlocks == 0)
        return all;
    QStringList shown;
    for (const MarkdownText::Block &block : blocks)
        shown.append(ReadingText::blockText(block));
    const qsizetype words = ReadingText::wordCount(shown.join(u'\n'));
    const QString complete = u"Reply complete, %1 %2."_s.arg(words).arg(words == 1 ? u"word"_s : u"words"_s);
    // A heading alone says little: the paragraph under it comes along.
    qsizetype first = 0;
    while (first < blocks.size() && ReadingText::spokenBlock(blocks.at(first)).trimmed().isEmpty())
        ++first;
    qsizetype end = std::min(blocks.size(), first + 1);
    if (end < blocks.size() && blocks.at(first).kind == MarkdownText::Block::Kind::Heading)
        ++end;
    QString opening = joined(blocks, first, end);
    if (!opening.isEmpty() && !QStringLiteral(".!?:").contains(opening.back()))
        opening += u'.';
    QStringList parts;
    // The paragraphs that finished with the reply were never told as it streamed: they come
    // first, so that the listener hears the reply to its end before the summary.
    if (toldBlocks > 0)
        parts.append(joined(blocks, std::min(toldBlocks, blocks.size()), blocks.size()));
    parts.append(opening);
    parts.append(complete);
    parts.removeAll(QString());
    return parts.join(u'\n');
}

const QString *ReplyAnnouncer::replyContent() const
{
    for (const ChatMessage &message : m_chat->messages()) {
        if (message.id == m_reply)
            return &message.content;
    }
    return nullptr;
}

void ReplyAnnouncer::handleStreaming()
{
    if (m_chat->isStreaming()) {
        const QList<ChatMessage> &messages = m_chat->messages();
        m_reply = messages.isEmpty() || messages.last().role != ChatRole::assistant ? QUuid() : messages.last().id;
        m_toldBlocks = 0;
        m_endDue = false;
        m_error.clear();
        m_timer.stop();
        forgetParse();
        return;
    }
    if (m_reply.isNull() && m_error.isEmpty())
        return;
    m_endDue = true;
    schedule(endSettleMs);
}

void ReplyAnnouncer::handleChanged(qsizetype index)
{
    // Nothing is worked out for announcements while no screen reader listens.
    if (!m_chat->isStreaming() || m_endDue || !QAccessible::isActive())
        return;
    const ChatMessage &message = m_chat->messages().at(index);
    if (message.role != ChatRole::assistant)
        return;
    if (message.id != m_reply) {
        // A reply written again in place is the one that streams now.
        m_reply = message.id;
        m_toldBlocks = 0;
        forgetParse();
    }
    // Short replies are told whole when they end; only a long one is worth telling as it grows.
    if (message.content.size() > longReply && !m_timer.isActive())
        schedule();
}

void ReplyAnnouncer::handleError()
{
    const std::optional<QString> error = m_chat->errorText();
    if (!error || error->isEmpty())
        return;
    m_error = *error;
    // During a reply the error is its end; otherwise it is news of its own.
    if (!m_chat->isStreaming() && !m_endDue) {
        m_reply = QUuid();
        m_endDue = true;
        schedule();
    }
}

void ReplyAnnouncer::schedule(int atLeastMs)
{
    const qint64 now = m_clock.elapsed();
    const qint64 free = m_lastAnnounced < 0 ? now : m_lastAnnounced + m_intervalMs;
    m_timer.start(int(std::max<qint64>(atLeastMs, free - now)));
}

void ReplyAnnouncer::announceDue()
{
    if (m_lastAnnounced >= 0 && m_clock.elapsed() < m_lastAnnounced + m_intervalMs) {
        schedule();
        return;
    }
    if (m_endDue) {
        m_endDue = false;
        const QString *content = replyContent();
        const QString error = std::exchange(m_error, QString());
        m_reply = QUuid();
        forgetParse();
        if (!error.isEmpty())
            announce(error);
        else if (content && !content->isEmpty())
            announce(endText(*content, std::exchange(m_toldBlocks, 0)));
        return;
    }
    const QString *content = replyContent();
    if (!content || !m_chat->isStreaming())
        return;
    // Every block but the last is finished; the last may still be growing.
    const QList<MarkdownText::Block> &blocks = replyBlocks(*content);
    const qsizetype finished = blocks.size() - 1;
    if (finished <= m_toldBlocks)
        return;
    // Links and markup can make the Markdown long while what is shown stays short enough to be
    // told whole, once, at the end.
    if (m_toldBlocks == 0 && joined(blocks, 0, blocks.size()).size() <= longReply)
        return;
    const QString text = joined(blocks, m_toldBlocks, finished);
    m_toldBlocks = finished;
    if (!text.isEmpty())
        announce(text);
}

const QList<MarkdownText::Block> &ReplyAnnouncer::replyBlocks(const QString &content)
{
    const QStringView settled = QStringView(m_parsedText).first(m_resume.offset);
    if (m_resume.offset == 0 || !QStringView(content).startsWith(settled)) {
        m_blocks = MarkdownText::parse(content, &m_resume);
    } else {
        MarkdownText::ResumePoint tail;
        m_blocks.resize(m_resume.blocks);
        m_blocks += MarkdownText::parse(QStringView(content).sliced(m_resume.offset), &tail);
        m_resume = {m_resume.offset + tail.offset, m_resume.blocks + tail.blocks};
    }
    m_parsedText = content;
    return m_blocks;
}

void ReplyAnnouncer::forgetParse()
{
    m_parsedText.clear();
    m_blocks.clear();
    m_resume = {};
}

void ReplyAnnouncer::announce(const QString &text)
{
    if (!QAccessible::isActive() || !window()->isActiveWindow() || !isEnabled())
        return;
    m_text = text;
    m_lastAnnounced = m_clock.elapsed();
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    QAccessibleAnnouncementEvent event(this, text);
    QAccessible::updateAccessibility(&event);
#else
    QAccessibleEvent event(this, QAccessible::ObjectShow);
    QAccessible::updateAccessibility(&event);
#endif
}
