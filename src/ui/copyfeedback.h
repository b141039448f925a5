#pragma once

#include <QObject>
#include <QString>

// The copied state of one copy control: copy() puts raw text on the clipboard and shows the
// check mark until a reset resetDelayMs() later. Every copy schedules its own reset and none is
// cancelled, so a second press shortly after the first is cleared by the first one's reset.
// Lives and dies with the view that shows it; main thread only.
class CopyFeedback final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CopyFeedback)

public:
    // The shipped delay before the check mark goes away.
    static constexpr int shippedResetDelayMs = 1200;

    explicit CopyFeedback(QObject *parent = nullptr);

    bool copied() const { return m_copied; }
    // Clears the clipboard, then writes text to it as plain text. The write is not checked.
    void copy(const QString &text);
    // Clears the clipboard, then writes text to it as plain text: every copy of the program goes
    // through here, with or without a check mark to show.
    static void writeClipboard(const QString &text);

    // Test seam for every copy control of the process; a negative value restores the shipped delay.
    static void setResetDelayMs(int ms);
    static int resetDelayMs();

signals:
    // Emitted when copied() changes.
    void copiedChanged();

private:
    void setCopied(bool copied);

    bool m_copied = false;
};
