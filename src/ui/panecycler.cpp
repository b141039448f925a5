#include "ui/panecycler.h"

#include <QApplication>
#include <QShortcut>

PaneCycler::PaneCycler(QWidget *host, std::function<QList<QWidget *>()> panes)
    : QObject(host)
    , m_host(host)
    , m_panes(std::move(panes))
{
    auto *forward = new QShortcut(QKeySequence(Qt::Key_F6), host);
    auto *backward = new QShortcut(QKeySequence(Qt::SHIFT | Qt::Key_F6), host);
    for (QShortcut *shortcut : {forward, backward})
        shortcut->setContext(Qt::WidgetWithChildrenShortcut);
    connect(forward, &QShortcut::activated, this, [this] { cycle(true); });
    connect(backward, &QShortcut::activated, this, [this] { cycle(false); });
}

void PaneCycler::returnOnEscape(QWidget *pane, QWidget *home)
{
    auto *escape = new QShortcut(QKeySequence(Qt::Key_Escape), pane);
    escape->setContext(Qt::WidgetWithChildrenShortcut);
    const QPointer<QWidget> target(home);
    connect(escape, &QShortcut::activated, this, [target] {
        if (target)
            target->setFocus(Qt::ShortcutFocusReason);
    });
}

void PaneCycler::cycle(bool forward)
{
    QList<QWidget *> panes;
    for (QWidget *pane : m_panes()) {
        if (pane && pane->isVisible() && pane->isEnabled())
            panes.append(pane);
    }
    if (panes.isEmpty())
        return;
    const QWidget *focus = QApplication::focusWidget();
    qsizetype at = -1;
    for (qsizetype i = 0; i < panes.size(); ++i) {
        if (focus && (focus == panes.at(i) || panes.at(i)->isAncestorOf(focus)))
            at = i;
    }
    const qsizetype n = panes.size();
    // From outside every pane (the header, say), forward starts at the first pane.
    const qsizetype to = at < 0 ? (forward ? 0 : n - 1) : (at + (forward ? 1 : n - 1)) % n;
    panes.at(to)->setFocus(Qt::ShortcutFocusReason);
}
