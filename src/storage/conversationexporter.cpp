#include "storage/conversationexporter.h"

#include "storage/atomicfile.h"
#include "storage/filedialogs.h"

#include <QCoreApplication>

namespace ConversationExporter {

static QString heading(const ChatMessage &message)
{
    switch (message.role) {
    case ChatRole::user:
        return QStringLiteral("## You\n\n");
    case ChatRole::system:
        return QStringLiteral("## System\n\n");
    case ChatRole::assistant:
        break;
    }
    if (const auto count = displayedTokenCount(message.usage))
        return QStringLiteral("## Assistant _(") + QString::number(*count) + QStringLiteral(" tokens)_\n\n");
    return QStringLiteral("## Assistant\n\n");
}

QString markdown(const Conversation &conversation, const std::optional<QString> &providerName,
                 const std::optional<QString> &model)
{
    const QString separator = QStringLiteral(" \u00B7 ");
    // QDateTime::toString with a pattern always uses ASCII digits and the C locale, which keeps
    // the information line the same shape for every user; only the time zone is the user's.
    QString info =
        ReferenceDate::toDateTime(conversation.updatedAt).toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"));
    if (providerName && !providerName->isEmpty()) {
        info += separator + *providerName;
        if (model)
            info += separator + *model;
    }

    qsizetype size = conversation.title.size() + info.size() + 16;
    for (const ChatMessage &m : conversation.messages)
        size += m.content.size() + 40;
    QString text;
    text.reserve(size);
    text += QStringLiteral("# ") + conversation.title + QStringLiteral("\n\n");
    text += u'_' + info + QStringLiteral("_\n\n");
    for (const ChatMessage &m : conversation.messages) {
        text += heading(m);
        text += m.content;
        text += QStringLiteral("\n\n");
    }
    return text;
}

QString sanitizedFileName(const QString &name)
{
    static constexpr char16_t replaced[] = u"/\\:?%*|\"<>";
    QString result = name;
    for (QChar &c : result) {
        if (std::char_traits<char16_t>::find(replaced, std::size(replaced) - 1, c.unicode()))
            c = u'-';
    }
    result = result.trimmed();
    return result.isEmpty() ? QStringLiteral("conversation") : result;
}

std::optional<QString> exportTranscript(const Conversation &conversation, const std::optional<QString> &providerName,
                                        const std::optional<QString> &model, FileDialogs &dialogs)
{
    SaveDialogRequest request;
    request.title = QCoreApplication::translate("ConversationExporter", "Export Conversation");
    request.message =
        QCoreApplication::translate("ConversationExporter", "Choose where to save the Markdown transcript.");
    request.suggestedName = sanitizedFileName(conversation.title) + QStringLiteral(".md");
    request.nameFilters = {QCoreApplication::translate("ConversationExporter", "Markdown (*.md)")};
    const std::optional<QString> path = dialogs.saveFileName(request);
    if (!path || path->isEmpty())
        return std::nullopt;

    if (const auto error = AtomicFile::write(*path, markdown(conversation, providerName, model).toUtf8()))
        return QStringLiteral("Export failed: ") + *error;
    return std::nullopt;
}

} // namespace ConversationExporter
