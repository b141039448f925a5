#include "ui/transcriptaccessible.h"

#include "chat/chatviewmodel.h"
#include "ui/markdowntextview.h"
#include "ui/messagebubble.h"
#include "ui/transcriptview.h"

#include <QAccessibleWidget>
#include <QHash>
#include <QLabel>
#include <QPointer>

namespace {

QAccessibleInterface *transcriptInterface(const TranscriptArea *area)
{
    return QAccessible::queryAccessibleInterface(const_cast<TranscriptArea *>(area));
}

// A message whose bubble is not built: read from the view model.
class MessageStandIn final : public QAccessibleInterface
{
public:
    MessageStandIn(TranscriptArea *area, const QUuid &id)
        : m_area(area)
        , m_id(id)
    {}

    bool isValid() const override { return m_area && index() >= 0; }
    QObject *object() const override { return nullptr; }
    QWindow *window() const override { return m_area ? m_area->window()->windowHandle() : nullptr; }
    QAccessibleInterface *childAt(int, int) const override { return nullptr; }
    QAccessibleInterface *parent() const override { return m_area ? transcriptInterface(m_area) : nullptr; }
    QAccessibleInterface *child(int) const override { return nullptr; }
    int childCount() const override { return 0; }
    int indexOfChild(const QAccessibleInterface *) const override { return -1; }
    QAccessible::Role role() const override { return QAccessible::ListItem; }
    QAccessible::State state() const override
    {
        QAccessible::State state;
        state.invisible = true;
        state.offscreen = true;
        state.readOnly = true;
        return state;
    }
    QRect rect() const override { return {}; }
    void setText(QAccessible::Text, const QString &) override {}
    QString text(QAccessible::Text t) const override
    {
        const qsizetype i = index();
        if (i < 0)
            return {};
        const ChatMessage &message = m_area->chat()->messages().at(i);
        if (t == QAccessible::Name)
            return MessageBubble::roleLabel(message.role);
        if (t == QAccessible::Description)
            return message.content.isEmpty() ? QString(QChar(0x2026)) : message.content;
        return {};
    }

    qsizetype index() const
    {
        if (!m_area)
            return -1;
        const QList<ChatMessage> &messages = m_area->chat()->messages();
        for (qsizetype i = 0; i < messages.size(); ++i) {
            if (messages.at(i).id == m_id)
                return i;
        }
        return -1;
    }

private:
    QPointer<TranscriptArea> m_area;
    QUuid m_id;
};

// The transcript as a list of all its messages, then the error line when shown.
class TranscriptAccessible final : public QAccessibleWidget
{
public:
    explicit TranscriptAccessible(TranscriptArea *area)
        : QAccessibleWidget(area, QAccessible::List)
    {}
    ~TranscriptAccessible() override
    {
        for (QAccessible::Id id : std::as_const(m_standIns))
            QAccessible::deleteAccessibleInterface(id);
    }

    TranscriptArea *area() const { return static_cast<TranscriptArea *>(widget()); }

    int childCount() const override
    {
        const QWidget *error = area()->errorLabel();
        return int(area()->messageCount()) + (error->isHidden() ? 0 : 1);
    }

    QAccessibleInterface *child(int index) const override
    {
        TranscriptArea *a = area();
        if (index < 0 || index >= childCount())
            return nullptr;
        if (index >= a->messageCount())
            return QAccessible::queryAccessibleInterface(a->errorLabel());
        if (MessageBubble *bubble = a->bubbleAt(index))
            return QAccessible::queryAccessibleInterface(bubble);
        const QUuid id = a->chat()->messages().at(index).id;
        auto it = m_standIns.constFind(id);
        if (it != m_standIns.constEnd()) {
            if (QAccessibleInterface *existing = QAccessible::accessibleInterface(*it))
                return existing;
        }
        auto *standIn = new MessageStandIn(a, id);
        m_standIns.insert(id, QAccessible::registerAccessibleInterface(standIn));
        return standIn;
    }

    int indexOfChild(const QAccessibleInterface *child) const override
    {
        if (!child)
            return -1;
        if (child->object() == area()->errorLabel())
            return int(area()->messageCount());
        for (qsizetype i = 0; i < area()->messageCount(); ++i) {
            if (child->object() && child->object() == area()->bubbleAt(i))
                return int(i);
        }
        if (const auto *standIn = dynamic_cast<const MessageStandIn *>(child))
            return int(standIn->index());
        return -1;
    }

private:
    mutable QHash<QUuid, QAccessible::Id> m_standIns;
};

// A bubble reads as its role and its raw text, and belongs to the transcript's list.
class BubbleAccessible final : public QAccessibleWidget
{
public:
    explicit BubbleAccessible(MessageBubble *bubble)
        : QAccessibleWidget(bubble, QAccessible::ListItem)
    {}

    QAccessibleInterface *parent() const override
    {
        for (QWidget *w = widget()->parentWidget(); w; w = w->parentWidget()) {
            if (auto *area = qobject_cast<TranscriptArea *>(w))
                return transcriptInterface(area);
        }
        return QAccessibleWidget::parent();
    }
};

// Painted text blocks read as static text.
class TextBlockAccessible final : public QAccessibleWidget
{
public:
    explicit TextBlockAccessible(QWidget *block)
        : QAccessibleWidget(block, QAccessible::StaticText)
    {}
};

QAccessibleInterface *factory(const QString &className, QObject *object)
{
    if (!object || !object->isWidgetType())
        return nullptr;
    if (className == QLatin1String("TranscriptArea"))
        return new TranscriptAccessible(static_cast<TranscriptArea *>(object));
    if (className == QLatin1String("MessageBubble"))
        return new BubbleAccessible(static_cast<MessageBubble *>(object));
    if (className == QLatin1String("TextBlockView") || className == QLatin1String("TableBlockView") ||
        className == QLatin1String("CodeTextView"))
        return new TextBlockAccessible(static_cast<QWidget *>(object));
    return nullptr;
}

} // namespace

void installTranscriptAccessibility()
{
    static const bool installed = [] {
        QAccessible::installFactory(factory);
        return true;
    }();
    Q_UNUSED(installed);
}
