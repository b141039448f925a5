#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QWidget>

#include <functional>

// The keyboard's way around a main window: F6 and Shift+F6 move the focus from pane to pane in a
// ring (the conversation list, the transcript, the composer), and Escape inside a pane that asks
// for it goes back to the home pane. The panes are asked for at each press, so panes made later
// (the chat area appears with the first provider) and hidden ones are handled. Owned by host.
class PaneCycler final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(PaneCycler)

public:
    PaneCycler(QWidget *host, std::function<QList<QWidget *>()> panes);

    // Escape with the focus anywhere in pane moves it to home.
    void returnOnEscape(QWidget *pane, QWidget *home);
    // Moves the focus to the next (or previous) shown pane after the one holding it.
    void cycle(bool forward);

private:
    QWidget *m_host;
    std::function<QList<QWidget *>()> m_panes;
};
