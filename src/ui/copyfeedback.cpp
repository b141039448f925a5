#include "ui/copyfeedback.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QTimer>

namespace {
int s_resetDelayMs = CopyFeedback::shippedResetDelayMs;
}

CopyFeedback::CopyFeedback(QObject *parent)
    : QObject(parent)
{}

void CopyFeedback::writeClipboard(const QString &text)
{
    // Clearing first drops every format an earlier owner offered, so no application pastes a
    // stale rich version of an older copy.
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(text);
}

void CopyFeedback::copy(const QString &text)
{
    writeClipboard(text);
    setCopied(true);
    QTimer::singleShot(s_resetDelayMs, this, [this] { setCopied(false); });
}

void CopyFeedback::setResetDelayMs(int ms)
{
    s_resetDelayMs = ms < 0 ? shippedResetDelayMs : ms;
}

int CopyFeedback::resetDelayMs()
{
    return s_resetDelayMs;
}

void CopyFeedback::setCopied(bool copied)
{
    if (m_copied == copied)
        return;
    m_copied = copied;
    emit copiedChanged();
}
